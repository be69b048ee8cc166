#pragma once

#include "base/Descriptor.h"
#include "support/Waiting.h"

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>
#include <termios.h>

namespace nimbra::test {

/// A terminal on which a program runs, and its user. The destructor kills the program if it still
/// runs. One thread.
class Terminal
{
public:
    /// Runs a program, named by its path or found in PATH. Throws std::system_error.
    explicit Terminal(const std::vector<std::string> &command);
    ~Terminal();
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    /// All output so far.
    [[nodiscard]] const std::string &Output();
    /// Waits for a text after the one that the last call found; false if it does not come in time.
    [[nodiscard]] bool WaitFor(const std::string &text, milliseconds limit = kSoon);
    /// Types keys.
    void Type(const std::string &keys) const;
    void Signal(int signal) const;
    /// The exit status, or the negative number of the signal that ended the program; nothing if it
    /// still runs.
    [[nodiscard]] std::optional<int> WaitForExit(milliseconds limit = kSoon);

    /// Whether the terminal shows what is typed.
    [[nodiscard]] bool HasEcho() const;
    /// Whether the terminal has the settings that it had before the program ran.
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
