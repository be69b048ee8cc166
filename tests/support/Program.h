#pragma once

#include <string>
#include <vector>

namespace nimbra::test {

/// What a program that ran to its end has left.
struct ProgramResult
{
    int Status;         ///< exit status, 128 + signal when a signal ended it
    std::string Output; ///< standard output and error together
};

/// Runs a program, named by its path or found in PATH, and waits for its end. Any thread.
[[nodiscard]] ProgramResult RunProgram(const std::vector<std::string> &command);

/// As RunProgram, as a user without any right and with the working directory "/". A caller that is
/// such a user itself, root only in a user namespace, runs the program as it is.
[[nodiscard]] ProgramResult RunUnprivileged(const std::vector<std::string> &command);

/// Replaces a program by a shell script.
void ReplaceProgram(const std::string &path, const std::string &script);

} // namespace nimbra::test
