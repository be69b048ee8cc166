#pragma once

#include "nimbractl/PanelSession.h"

#include <string>

namespace nimbra::ctl {

/// The login's password: the first line of the file that the settings name ("-": of standard
/// input), else the environment variable NIMBRA_PASSWORD, else asked for on the terminal without
/// echo. A signal meanwhile leaves the terminal as it was. Throws WrongUsage when there is none,
/// and LocalFailure when the file must be private and is not.
[[nodiscard]] std::string GetPassword(const Settings &settings);

} // namespace nimbra::ctl
