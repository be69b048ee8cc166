// The endurance test: the real agent under the load of clients, the cloud server, discovery and the
// panel, in rounds. After each round, without load, the agent's resources are measured.

#include "endurance/Run.h"
#include "support/Agent.h"
#include "support/Files.h"
#include "support/Sanitized.h"
#include "support/TestPanel.h"
#include "support/Waiting.h"

#include <CLI/CLI.hpp>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace nimbra::endurance {

namespace {

using test::Agent;
using test::kIsSanitized;
using test::Stopwatch;

/// The allowed growth of memory between the first and the last round: the allocator of the C
/// library takes and returns memory in steps.
constexpr std::size_t kSlackKiB = 4096;
/// The same for a run of one round, compared with an agent that has not served a client yet.
constexpr std::size_t kFirstSlackKiB = 16384;

/// The agent's resources at one moment.
struct Holding
{
    std::size_t Descriptors = 0;
    std::size_t Threads = 0;
    std::size_t ResidentKiB = 0;
};

Holding Look(const Agent &agent)
{
    return {agent.Descriptors(), agent.Threads(), agent.ResidentKiB()};
}

struct Result
{
    Holding AtStart;
    Holding AtMost; ///< under load
    std::vector<Holding> AfterRounds;
    double Seconds = 0;
    double CpuSeconds = 0;
    std::size_t LogLines = 0;
    /// The longest delay of this program itself: the machine delays responses as much.
    double LongestStall = 0;
    Run::Figures Figures;
    bool HasEndedWell = false;
};

/// Runs the threads of every role for one round.
class Load
{
public:
    explicit Load(Run &run) : run_(run)
    {
        run_.Begin();
        for (const std::vector<Role> &roles : {Clients(), Environment()})
            for (const Role &role : roles)
                for (unsigned i = 0; i < role.Number; ++i) {
                    ++atWork_;
                    threads_.emplace_back([this, role, number = number_++] {
                        try {
                            role.Behave(run_, number);
                        } catch (const std::exception &error) {
                            run_.Check(false, std::string(role.Name) + ": " + error.what());
                        }
                        --atWork_;
                    });
                }
    }
    ~Load()
    {
        run_.End();
        for (std::thread &thread : threads_)
            thread.join();
    }
    Load(const Load &) = delete;
    Load &operator=(const Load &) = delete;

    [[nodiscard]] bool IsAtWork() const { return atWork_ > 0; }

private:
    Run &run_;
    unsigned number_ = 0;
    std::atomic<unsigned> atWork_ = 0;
    std::vector<std::thread> threads_;
};

/// Waits while `isToGoOn` returns true and reads the agent's log, since an agent whose log is not
/// read blocks.
void Sustain(const std::function<bool()> &isToGoOn, Agent &agent, Result &result)
{
    while (isToGoOn()) {
        const Stopwatch nap;
        std::this_thread::sleep_for(milliseconds(50));
        result.LongestStall = std::max(result.LongestStall, nap.Seconds() - 0.05);
        result.LogLines += agent.ForgetLog();
        const Holding now = Look(agent);
        result.AtMost.Descriptors = std::max(result.AtMost.Descriptors, now.Descriptors);
        result.AtMost.Threads = std::max(result.AtMost.Threads, now.Threads);
        result.AtMost.ResidentKiB = std::max(result.AtMost.ResidentKiB, now.ResidentKiB);
    }
}

/// Waits until the agent has as few threads and descriptors as at the start, and records its
/// resources.
void LetGo(Agent &agent, Result &result)
{
    // While the cloud server is away, the link holds a socket for up to ten seconds.
    static_cast<void>(test::WaitUntil(
        [&] {
            result.LogLines += agent.ForgetLog();
            return agent.Threads() == result.AtStart.Threads &&
                   agent.Descriptors() == result.AtStart.Descriptors;
        },
        std::chrono::seconds(60)));
    result.AfterRounds.push_back(Look(agent));
}

Result RunRounds(double seconds, double roundSeconds)
{
    test::NameHost("127.0.0.1", "cloud.nimbra.example");
    const test::TestPanel panel({}, test::TestPanel::Cloud::Enabled);
    unsigned clients = 0;
    for (const Role &role : Clients())
        clients += role.Number;
    for (unsigned number = 0; number < clients; ++number)
        panel.Run("INSERT INTO User (No, LastName) VALUES (" + std::to_string(OwnUser(number)) +
                  ", 'New')");
    Result result;
    Run run(panel);
    const Stopwatch watch;
    Agent agent;
    // Threads: main, listener, reaper, cloud link and discovery. No connection to the cloud server.
    if (!test::WaitUntil([&] {
            return agent.Threads() == 5 && agent.Descriptors() == Agent::kDescriptorsAtRest;
        }))
        throw std::runtime_error("the agent does not come to rest");
    result.AtStart = Look(agent);
    run.Learn();
    do {
        {
            const Load load(run);
            const Stopwatch round;
            const double length = std::min(roundSeconds, seconds);
            Sustain([&] { return round.Seconds() < length; }, agent, result);
            run.End();
            Sustain([&] { return load.IsAtWork(); }, agent, result);
        }
        LetGo(agent, result);
    } while (watch.Seconds() + roundSeconds < seconds);
    result.CpuSeconds = agent.CpuSeconds();
    result.Seconds = watch.Seconds();
    result.Figures = run.Read();
    result.HasEndedWell = agent.End() == 0;
    return result;
}

/// The events that never happened although every run must have them: without its load a run proves
/// nothing. (A silent session need not end in a short run.)
std::vector<std::string> Missing(const Result &result)
{
    std::vector<std::string> missing;
    for (const char *what :
         {"registrations", "heartbeats", "answers to remote clients", "probes answered",
          "sessions of good clients", "slow exchanges", "halves of lines lost", "connections reset",
          "hostile lines", "transactions of the panel"}) {
        const auto count = result.Figures.Counts.find(what);
        if (count == result.Figures.Counts.end() || count->second == 0)
            missing.emplace_back(what);
    }
    return missing;
}

/// Whether the agent had as many threads and descriptors after each round as at the start.
bool HasLetGo(const Result &result)
{
    return std::all_of(result.AfterRounds.begin(), result.AfterRounds.end(),
                       [&](const Holding &holding) {
                           return holding.Descriptors == result.AtStart.Descriptors &&
                                  holding.Threads == result.AtStart.Threads;
                       });
}

bool HasMemoryStayed(const Result &result)
{
    const std::size_t end = result.AfterRounds.back().ResidentKiB;
    return kIsSanitized || (result.AfterRounds.size() == 1
                                ? end <= result.AtStart.ResidentKiB + kFirstSlackKiB
                                : end <= result.AfterRounds.front().ResidentKiB + kSlackKiB);
}

void PrintText(const Result &result, bool isGood)
{
    std::printf("%.0f s, %zu rounds, 50 clients each\n", result.Seconds, result.AfterRounds.size());
    std::printf("answers checked %llu, wrong %llu; mean %.1f ms, longest %.2f s (%s)\n",
                static_cast<unsigned long long>(result.Figures.Checked),
                static_cast<unsigned long long>(result.Figures.Wrong),
                result.Figures.MeanSeconds * 1000, result.Figures.LongestSeconds,
                result.Figures.LongestRequest.c_str());
    for (const auto &[what, number] : result.Figures.Counts)
        std::printf("  %s %llu\n", what.c_str(), static_cast<unsigned long long>(number));
    std::printf("processor %.1f s, log lines %zu; this program was woken up to %.2f s late\n",
                result.CpuSeconds, result.LogLines, result.LongestStall);
    const auto print = [](const char *when, const Holding &holding) {
        std::printf("%-20s descriptors %4zu  threads %4zu  resident %6zu KiB\n", when,
                    holding.Descriptors, holding.Threads, holding.ResidentKiB);
    };
    print("at the start", result.AtStart);
    print("at most, under load", result.AtMost);
    print("after the 1st round", result.AfterRounds.front());
    print("at the end", result.AfterRounds.back());
    if (kIsSanitized)
        std::puts("resident memory includes the sanitizer's and is not checked");
    for (const std::string &sample : result.Figures.Samples)
        std::printf("WRONG: %s\n", sample.c_str());
    for (const std::string &what : Missing(result))
        std::printf("NONE: %s\n", what.c_str());
    std::puts(isGood ? "The agent has held out." : "THE AGENT HAS NOT HELD OUT.");
}

nlohmann::json ToJson(const Holding &holding)
{
    return {{"descriptors", holding.Descriptors},
            {"threads", holding.Threads},
            {"resident_kib", holding.ResidentKiB}};
}

void PrintJson(const Result &result, bool isGood)
{
    nlohmann::json json = {{"held_out", isGood},
                           {"seconds", result.Seconds},
                           {"answers_checked", result.Figures.Checked},
                           {"answers_wrong", result.Figures.Wrong},
                           {"wrong", result.Figures.Samples},
                           {"none", Missing(result)},
                           {"mean_seconds", result.Figures.MeanSeconds},
                           {"longest_seconds", result.Figures.LongestSeconds},
                           {"longest_request", result.Figures.LongestRequest},
                           {"counts", result.Figures.Counts},
                           {"cpu_seconds", result.CpuSeconds},
                           {"log_lines", result.LogLines},
                           {"longest_stall_seconds", result.LongestStall},
                           {"memory_judged", !kIsSanitized},
                           {"at_start", ToJson(result.AtStart)},
                           {"at_most", ToJson(result.AtMost)},
                           {"after_rounds", nlohmann::json::array()}};
    for (const Holding &holding : result.AfterRounds)
        json["after_rounds"].push_back(ToJson(holding));
    std::puts(json.dump(2).c_str());
}

} // namespace

} // namespace nimbra::endurance

int main(int argc, char **argv)
{
    CLI::App app(
        "Tests the agent under the load of 50 clients of every kind, a cloud server that stops\n"
        "and starts, bursts of probes and a panel that writes its databases. Runs in a\n"
        "sandbox: nimbra-sandbox -- nimbra-endurance. The status is 0 if every response was\n"
        "correct and the agent held no more resources at the end than at the start.");
    double seconds = 60;
    double roundSeconds = 60;
    bool isJson = false;
    app.add_option("--seconds", seconds, "Length of the run in seconds")
        ->check(CLI::Range(5, 864000));
    app.add_option("--round", roundSeconds, "Length of a round's load in seconds")
        ->check(CLI::Range(5, 3600));
    app.add_flag("--json", isJson, "Print the figures as JSON");
    CLI11_PARSE(app, argc, argv);
    // The class Agent reports errors as test failures.
    int testArguments = 1;
    ::testing::InitGoogleTest(&testArguments, argv);
    std::signal(SIGPIPE, SIG_IGN);
    using namespace nimbra::endurance;
    try {
        const Result result = RunRounds(seconds, roundSeconds);
        const bool isGood = result.HasEndedWell && result.Figures.Wrong == 0 &&
                            Missing(result).empty() && HasLetGo(result) &&
                            HasMemoryStayed(result) &&
                            !::testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed();
        isJson ? PrintJson(result, isGood) : PrintText(result, isGood);
        return isGood ? 0 : 1;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "nimbra-endurance: %s\n", error.what());
        return 1;
    }
}
