#pragma once

#include <string>
#include <vector>

namespace nimbra::ctl {

/// Splits a line into words at blanks. Single quotes keep every character between them, double
/// quotes and a backslash keep blanks and quotes. Throws WrongUsage when a quote is not closed.
[[nodiscard]] std::vector<std::string> SplitWords(const std::string &line);

} // namespace nimbra::ctl
