#pragma once

#include <CLI/CLI.hpp>

namespace nimbra::ctl {

/// Prints the options of the program and all its commands as sections of the manual page, in the
/// markup of scdoc.
void PrintManualPage(const CLI::App &app);

} // namespace nimbra::ctl
