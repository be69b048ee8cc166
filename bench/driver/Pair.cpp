#include "bench/driver/Pair.h"

#include "bench/driver/Clock.h"

#include <algorithm>
#include <map>
#include <stdexcept>

namespace nimbra::bench {

namespace {

/// The time of a thread is up to date only when the thread waits.
constexpr double kUntilThreadWaits = 0.003;

} // namespace

void Station::LogIn()
{
    Asking.LogIn();
    thread_ = FindThread();
}

int Station::FindThread()
{
    // The session's thread is the one that works while requests are served.
    constexpr int kHeartbeats = 500;
    std::map<int, double> before;
    for (const int thread : Running.Threads())
        before[thread] = Running.ProcessorTime(thread);
    Asking.Flood("Heartbeat?\n", kHeartbeats, kHeartbeats);
    Sleep(kUntilThreadWaits);
    const auto hasWorkedLess = [this](const auto &a, const auto &b) {
        return Running.ProcessorTime(a.first) - a.second <
               Running.ProcessorTime(b.first) - b.second;
    };
    return std::max_element(before.begin(), before.end(), hasWorkedLess)->first;
}

double Station::CostOf(const std::string &request, int count, std::size_t lines)
{
    const double before = Running.ProcessorTime(thread_);
    Asking.Flood(request, count, lines * static_cast<std::size_t>(count));
    Sleep(kUntilThreadWaits);
    const double after = Running.ProcessorTime(thread_);
    if (after <= before)
        throw std::runtime_error("the session under measurement has ended");
    return (after - before) / count * 1e6;
}

Pair::Pair(const Plan &plan) : agent_(plan.Agent), baseline_(plan.Baseline)
{
    agent_.LogIn();
    baseline_.LogIn();
}

void Pair::KeepAlive()
{
    agent_.Asking.KeepAlive();
    baseline_.Asking.KeepAlive();
}

void Pair::RequireSame(const std::string &request, const std::string &ofAgent,
                       const std::string &ofBaseline)
{
    if (ofAgent != ofBaseline)
        throw std::runtime_error("the baseline answers other bytes to " + request + ofBaseline +
                                 "than the agent\n" + ofAgent);
    if (ofAgent.find("Result=0") == std::string::npos)
        throw std::runtime_error("refused: " + request + ofAgent);
}

} // namespace nimbra::bench
