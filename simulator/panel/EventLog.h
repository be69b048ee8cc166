#pragma once

#include "simulator/panel/PanelPaths.h"
#include "simulator/panel/SampleData.h"

namespace nimbra::panel {

/// Appends an event to the panel's log, under the next number and with the present time; the
/// event's own number, date and description are not used. Throws std::runtime_error on failure.
void AppendEvent(const PanelPaths &paths, const SampleEvent &event);

} // namespace nimbra::panel
