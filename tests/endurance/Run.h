#pragma once

#include "support/ManagementClient.h"
#include "support/TestPanel.h"
#include "support/Waiting.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace nimbra::endurance {

using std::chrono::milliseconds;

/// The shared state of a run: the end of its load and the figures of all threads. Any thread.
class Run
{
public:
    explicit Run(const test::TestPanel &panel);

    [[nodiscard]] const test::TestPanel &Panel() const { return panel_; }
    /// The requests whose responses never change, with these responses and all their rows.
    [[nodiscard]] const std::map<std::string, std::vector<std::string>> &Known() const
    {
        return known_;
    }
    /// Records the known responses of an agent without other clients.
    void Learn();

    void Begin() { isOver_ = false; }
    void End() { isOver_ = true; }
    [[nodiscard]] bool IsOver() const { return isOver_; }
    /// Sleeps until the end of the load at most.
    void Pause(milliseconds duration) const;

    /// Counts a checked response. Keeps a wrong one for the report.
    void Check(bool isRight, const std::string &what);
    void CheckEqual(const std::string &answer, const std::string &expected,
                    const std::string &request);
    /// Adds to the count of an event, named by `what`.
    void Count(const std::string &what, std::uint64_t number = 1);
    /// Records the time of a response.
    void Took(const std::string &request, double seconds);

    struct Figures
    {
        std::uint64_t Checked = 0;
        std::uint64_t Wrong = 0;
        std::vector<std::string> Samples; ///< of wrong responses, the first ones
        std::map<std::string, std::uint64_t> Counts;
        double MeanSeconds = 0;
        double LongestSeconds = 0;
        std::string LongestRequest;
    };
    [[nodiscard]] Figures Read() const;

private:
    const test::TestPanel &panel_;
    std::map<std::string, std::vector<std::string>> known_;
    const test::Stopwatch watch_;
    std::atomic<bool> isOver_ = true;
    mutable std::mutex lock_;
    Figures figures_;
    double totalSeconds_ = 0;
    std::uint64_t timed_ = 0;
};

/// The behaviour of a thread until the end of the load. `number` counts the threads from 0.
using Behaviour = void (*)(Run &run, unsigned number);

struct Role
{
    const char *Name;
    Behaviour Behave;
    unsigned Number; ///< of threads
};

/// The 50 clients.
[[nodiscard]] const std::vector<Role> &Clients();
/// The environment: a cloud server that stops and starts, discovery, the panel's own software.
[[nodiscard]] const std::vector<Role> &Environment();

/// The user that only the client with this number uses.
[[nodiscard]] int OwnUser(unsigned number);

} // namespace nimbra::endurance
