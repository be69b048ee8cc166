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

/// The real nimbra-agent, started as a child with its output taken down line by line. It is ended
/// with the object, which fails the test when the agent crashed or a sanitizer complained. One
/// thread.
class Agent
{
public:
    /// What an agent at rest has open: the standard three, the listener and discovery's two.
    static constexpr std::size_t kDescriptorsAtRest = 6;

    struct Options
    {
        /// Environment variables besides the test's own.
        std::vector<std::pair<std::string, std::string>> Environment;
        /// A wrapper and its arguments that the agent is run by, such as prlimit.
        std::vector<std::string> Wrapper;
        /// Whether to wait until the listener is open.
        bool WaitUntilServing = true;
    };

    Agent() : Agent(Options()) {}
    explicit Agent(Options options);
    ~Agent();
    Agent(const Agent &) = delete;
    Agent &operator=(const Agent &) = delete;

    /// Every line of output so far.
    [[nodiscard]] const std::vector<std::string> &Log();
    /// Drops the lines taken down so far, but for what a sanitizer has reported: for an agent that
    /// runs for long. Returns how many they were.
    std::size_t ForgetLog();
    /// How many lines hold `text`.
    [[nodiscard]] std::size_t CountInLog(std::string_view text);
    /// Waits until `count` lines hold `text`.
    [[nodiscard]] bool WaitForLog(std::string_view text, milliseconds limit = kSoon,
                                  std::size_t count = 1);
    /// How many lines are a message of `source` and `method`: "DEBUG: <time>:ClientWorker.cpp:
    /// <line>:Login(): CheckPassword fail".
    [[nodiscard]] std::size_t CountMessages(std::string_view source, std::string_view method,
                                            std::string_view message);
    [[nodiscard]] bool WaitForMessage(std::string_view source, std::string_view method,
                                      std::string_view message, std::size_t count = 1,
                                      milliseconds limit = kSoon);

    void Signal(int signal) const;
    /// The exit status, or minus the number of the signal that ended the agent; nothing when it
    /// runs on.
    [[nodiscard]] std::optional<int> WaitForExit(milliseconds limit = kSoon);
    /// SIGTERM, and then as WaitForExit.
    [[nodiscard]] std::optional<int> End(milliseconds limit = kSoon);
    [[nodiscard]] bool IsRunning();

    [[nodiscard]] pid_t Pid() const { return pid_; }
    [[nodiscard]] std::size_t Descriptors() const;
    /// Those of the agent itself: without the one that ThreadSanitizer adds.
    [[nodiscard]] std::size_t Threads() const;
    [[nodiscard]] std::size_t ResidentKiB() const;
    /// Processor time used so far, user and system.
    [[nodiscard]] double CpuSeconds() const;

private:
    void ReadOutput();
    void FailOnReports();

    pid_t pid_ = -1;
    Descriptor output_;
    std::string unfinished_;
    std::vector<std::string> lines_;
    std::optional<int> status_;
};

} // namespace nimbra::test
