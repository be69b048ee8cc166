#pragma once

#include "nimbractl/Context.h"

namespace nimbra::ctl {

/// Reads commands and runs them in one session, which heartbeats keep alive: from a terminal with
/// history and completion, else line by line. Returns the status of the last command that failed, 0
/// if none did. Throws what opening the session throws.
[[nodiscard]] int RunShell(Context &context);

} // namespace nimbra::ctl
