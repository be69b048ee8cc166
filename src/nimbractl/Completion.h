#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace nimbra::ctl {

/// What the last word of a command line may become.
struct Completion
{
    std::vector<std::string> Candidates;
    bool IsFile = false; ///< a file of this machine
    bool IsHost = false; ///< a host name
};

/// Completes the last of `words`, which must not be empty, from the commands, the options and the
/// values of the parser. An option written as --name=value keeps its name in the candidates.
[[nodiscard]] Completion Complete(const CLI::App &app, const std::vector<std::string> &words);

/// Returns the files whose names begin with `begun`; a directory ends in "/".
[[nodiscard]] std::vector<std::string> CompleteFile(const std::string &begun);

/// Prints the candidates for the completion functions of shells, one a line; ":files" and ":hosts"
/// stand for the files and the hosts that the shell knows.
void PrintCompletion(const CLI::App &app, const std::vector<std::string> &words);

} // namespace nimbra::ctl
