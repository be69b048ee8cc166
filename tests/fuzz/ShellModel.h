#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace nimbra::fuzz {

/// The words of a command line, parsed as a shell does. Reports a finding for anything but plain
/// bytes, blanks, single quotes and a backslash before a quote: a shell may interpret it.
[[nodiscard]] std::vector<std::string> ShellWords(std::string_view line);

} // namespace nimbra::fuzz
