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

/// What the threads of a run share: when its load is over, and the count of what they have seen.
/// Any thread.
class Run
{
public:
    /// Takes down the answers to requests for rows that nothing of the run changes.
    explicit Run(const test::TestPanel &panel);

    [[nodiscard]] const test::TestPanel &Panel() const { return panel_; }
    /// Requests whose answers never change, and those answers with all their rows.
    [[nodiscard]] const std::map<std::string, std::vector<std::string>> &Known() const
    {
        return known_;
    }
    /// Takes the known answers down, from an agent that nobody else uses.
    void Learn();

    void Begin() { isOver_ = false; }
    void End() { isOver_ = true; }
    [[nodiscard]] bool IsOver() const { return isOver_; }
    /// Sleeps, but not beyond the end of the load.
    void Pause(milliseconds duration) const;

    /// Counts an answer that was looked at; one that is not as it must be is kept for the report.
    void Check(bool isRight, const std::string &what);
    void CheckEqual(const std::string &answer, const std::string &expected,
                    const std::string &request);
    /// Counts something that happened, by its name.
    void Count(const std::string &what, std::uint64_t number = 1);
    /// Takes down how long an answer took.
    void Took(const std::string &request, double seconds);

    struct Figures
    {
        std::uint64_t Checked = 0;
        std::uint64_t Wrong = 0;
        std::vector<std::string> Samples; ///< the first of the wrong ones
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

/// How one of the run's threads behaves, until the load is over. `number` is its own, from 0 on.
using Behaviour = void (*)(Run &run, unsigned number);

struct Role
{
    const char *Name;
    Behaviour Behave;
    unsigned Number; ///< of threads
};

/// The 50 clients.
[[nodiscard]] const std::vector<Role> &Clients();
/// The surroundings: the cloud server that comes and goes, discovery, the panel's own software.
[[nodiscard]] const std::vector<Role> &Surroundings();

/// The user that the client of this number has for itself.
[[nodiscard]] int OwnUser(unsigned number);

} // namespace nimbra::endurance
