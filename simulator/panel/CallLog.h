#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace nimbra::panel {

/// Arguments of one call of the command tool, its own name left out.
using Call = std::vector<std::string>;

/// Appends one call to the log, as one line and in one write, so that calls made at the same time
/// do not mix. The line is a JSON array; every byte above 127 is written as the character of that
/// number, so that arguments that are no UTF-8 are kept exactly. Throws std::system_error when
/// the file cannot be written.
void AppendCall(const std::filesystem::path &log, const Call &call);

/// Every call in the log, oldest first; none when there is no such file.
[[nodiscard]] std::vector<Call> ReadCalls(const std::filesystem::path &log);

} // namespace nimbra::panel
