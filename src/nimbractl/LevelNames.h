#pragma once

#include "nimbractl/Context.h"

#include <functional>

#include <nimbra-client/Record.h>

namespace nimbra::ctl {

/// Replaces numbers of a record by names.
using RecordEdit = std::function<void(client::Record &)>;

// Names are for tables: in other forms of the output nothing is replaced. A number stays where the
// panel has no name for it, or the login may not read the names.

/// Reads the names of the threat levels, and returns what replaces a ThreatLevel.
[[nodiscard]] RecordEdit NamesOfThreatLevels(Context &context);

/// Reads the names of the access levels of a card, or of its groups of them, and replaces them.
void NameAccessLevels(Context &context, client::Record &card);

} // namespace nimbra::ctl
