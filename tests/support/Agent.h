#pragma once

#include "base/Descriptor.h"
#include "support/Waiting.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace nimbra::test {

/// The real nimbra-agent as a child process, with its output recorded line by line. The destructor
/// stops it and fails the test if the agent crashed or a sanitizer reported an error. One thread.
class Agent
{
public:
    /// The open descriptors of an idle agent: the three standard ones, the listener and two of
    /// discovery.
    static constexpr std::size_t kDescriptorsAtRest = 6;

    struct Options
    {
        /// Environment variables in addition to those of the test.
        std::vector<std::pair<std::string, std::string>> Environment;
        /// A program and its arguments that run the agent, such as prlimit.
        std::vector<std::string> Wrapper;
        /// Whether to wait until the listener is open.
        bool WaitUntilServing = true;
    };

    [[nodiscard]] static Options InTimeZone(const std::string &timeZone);

    Agent() : Agent(Options()) {}
    explicit Agent(Options options);
    ~Agent();
    Agent(const Agent &) = delete;
    Agent &operator=(const Agent &) = delete;

    /// All lines of output so far.
    [[nodiscard]] const std::vector<std::string> &Log();
    /// Drops the lines recorded so far, except sanitizer reports, so that a long run does not fill
    /// the memory. Returns their number.
    std::size_t ForgetLog();
    /// The number of lines that contain `text`.
    [[nodiscard]] std::size_t CountInLog(std::string_view text);
    /// Waits until `count` lines contain `text`.
    [[nodiscard]] bool WaitForLog(std::string_view text, milliseconds limit = kSoon,
                                  std::size_t count = 1);
    /// The number of lines with this message of `source` and `method`, such as "DEBUG:
    /// <time>:ClientWorker.cpp:<line>:Login(): CheckPassword fail".
    [[nodiscard]] std::size_t CountMessages(std::string_view source, std::string_view method,
                                            std::string_view message);
    [[nodiscard]] bool WaitForMessage(std::string_view source, std::string_view method,
                                      std::string_view message, std::size_t count = 1,
                                      milliseconds limit = kSoon);

    void Signal(int signal);
    /// Stops the agent until it gets SIGCONT, and returns when all its threads have stopped. False
    /// if they have not within `kSoon`.
    [[nodiscard]] bool Suspend();
    /// The exit status, or the negative number of the signal that ended the agent; nothing if it
    /// still runs.
    [[nodiscard]] std::optional<int> WaitForExit(milliseconds limit = kSoon);
    /// Sends SIGTERM and then does the same as WaitForExit.
    [[nodiscard]] std::optional<int> End(milliseconds limit = kSoon);
    [[nodiscard]] bool IsRunning();

    [[nodiscard]] pid_t Pid() const { return pid_; }
    [[nodiscard]] std::size_t Descriptors() const;
    /// The agent's own threads, without the one that ThreadSanitizer adds.
    [[nodiscard]] std::size_t Threads() const;
    [[nodiscard]] std::size_t ResidentKiB() const;
    /// The user and system processor time used so far.
    [[nodiscard]] double CpuSeconds() const;

private:
    void ReadOutput();
    void FailOnReports();

    pid_t pid_ = -1;
    Descriptor output_;
    std::string unfinished_;
    std::vector<std::string> lines_;
    std::optional<int> status_;
    // By a signal of the test.
    bool isToldToEnd_ = false;
    bool isKilled_ = false;
};

} // namespace nimbra::test
