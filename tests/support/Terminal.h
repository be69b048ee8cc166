#pragma once

#include "base/Descriptor.h"
#include "support/Waiting.h"

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>
#include <termios.h>

namespace nimbra::test {

/// A terminal with a program on it, and the person in front of it. The program is killed with the
/// object if it still runs. One thread.
class Terminal
{
public:
    /// Runs a program, named by its path or found in PATH. Throws std::system_error.
    explicit Terminal(const std::vector<std::string> &command);
    ~Terminal();
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    /// Everything that the screen was sent so far.
    [[nodiscard]] const std::string &Output();
    /// Waits for a text behind what an earlier call found; false when it does not come in time.
    [[nodiscard]] bool WaitFor(const std::string &text, milliseconds limit = kSoon);
    /// Presses keys.
    void Type(const std::string &keys) const;
    void Signal(int signal) const;
    /// The exit status, or minus the number of the signal that ended the program; nothing when it
    /// runs on.
    [[nodiscard]] std::optional<int> WaitForExit(milliseconds limit = kSoon);

    /// Whether the terminal shows what is typed.
    [[nodiscard]] bool HasEcho() const;
    /// Whether the terminal is as it was before the program ran.
    [[nodiscard]] bool IsAsBefore() const;

private:
    Descriptor master_;
    Descriptor slave_;
    pid_t pid_ = -1;
    termios before_ = {};
    std::string output_;
    std::size_t searched_ = 0;
    std::optional<int> status_;
};

} // namespace nimbra::test
