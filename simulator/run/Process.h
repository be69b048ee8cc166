#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace nimbra::simulator {

/// A program that this process has started. It is in a session of its own, so that the terminal's
/// signals do not reach it, and is killed when the thread that started it ends. The destructor ends
/// it. For the main thread only.
class Process
{
public:
    /// Runs command[0], a path. The descriptors stay open in it, beside the standard ones; `output`
    /// becomes its standard output, unless it is 0. Throws std::system_error.
    explicit Process(const std::vector<std::string> &command,
                     const std::vector<int> &descriptors = {}, int output = 0);
    Process(Process &&other) noexcept;
    Process &operator=(Process &&) = delete;
    ~Process();

    /// Asks the program to end, by SIGTERM.
    void Terminate() const;
    /// Its exit status, 128 + signal when a signal has ended it, -1 when it has none; waits for its
    /// end.
    int Wait();
    /// As Wait, but nothing while the program runs.
    [[nodiscard]] std::optional<int> Poll();

private:
    [[nodiscard]] std::optional<int> Reap(int flags);

    pid_t process_ = 0; ///< 0 when it has ended
    int status_ = -1;
};

} // namespace nimbra::simulator
