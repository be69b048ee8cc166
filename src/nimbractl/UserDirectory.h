#pragma once

#include <filesystem>

namespace nimbra::ctl {

/// Returns the directory of nimbractl's files of one kind: below the directory that the environment
/// variable names, else below `place` in the home directory. Empty when neither is known. The
/// directory need not exist.
[[nodiscard]] std::filesystem::path UserDirectory(const char *variable, const char *place);

} // namespace nimbra::ctl
