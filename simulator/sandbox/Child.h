#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace nimbra::sandbox {

/// Exit statuses of the sandbox itself, as those of env(1) and the shell.
inline constexpr int kSandboxFailed = 125;
inline constexpr int kCannotRun = 126;
inline constexpr int kNotFound = 127;

struct Outcome
{
    /// Exit status of the command, 128 + signal when a signal ended it; empty when the
    /// preparation failed and the command has not run.
    std::optional<int> Status;
    std::string Failure; ///< why the preparation failed
};

/// What becomes of the processes that the command leaves running.
enum class Leftovers
{
    RunOn,
    End
};

/// Runs the program in a child process after `prepare` has run there, passes on the signals that
/// this process gets, and waits for its end. The command ends when this process dies. `prepare`
/// fails by throwing.
[[nodiscard]] Outcome RunChild(const std::string &program, const std::vector<std::string> &command,
                               Leftovers leftovers, const std::function<void()> &prepare);

} // namespace nimbra::sandbox
