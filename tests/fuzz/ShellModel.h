#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace nimbra::fuzz {

/// The words of a command line, read as a shell does. Anything but plain bytes, blanks, single
/// quotes and a backslash before a quote is reported: it would be at the shell's mercy.
[[nodiscard]] std::vector<std::string> ShellWords(std::string_view line);

} // namespace nimbra::fuzz
