#pragma once

#include <string>
#include <vector>

namespace nimbra::test {

/// The result of a program that has ended.
struct ProgramResult
{
    int Status;         ///< exit status; 128 + signal if a signal ended it
    std::string Output; ///< standard output and error together
};

/// Runs a program, named by its path or found in PATH, and waits for its end. Any thread.
[[nodiscard]] ProgramResult RunProgram(const std::vector<std::string> &command);

/// Like RunProgram, but as a user without rights and in the working directory "/". A caller that is
/// root only in a user namespace has no rights outside it and runs the program itself.
[[nodiscard]] ProgramResult RunUnprivileged(const std::vector<std::string> &command);

/// Replaces a program by a shell script.
void ReplaceProgram(const std::string &path, const std::string &script);

} // namespace nimbra::test
