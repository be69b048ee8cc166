#include "bench/driver/Bench.h"

#include "simulator/panel/SamplePanel.h"
#include "simulator/panel/Sqlite.h"

#include <algorithm>
#include <map>
#include <stdexcept>
#include <thread>

namespace nimbra::bench {

void Station::LogIn()
{
    Asking.LogIn();
    thread_ = FindThread();
}

int Station::FindThread()
{
    // The session's thread is the one that works while requests are served; the others do no more
    // than wake up now and then.
    constexpr int kHeartbeats = 500;
    std::map<int, double> before;
    for (const int thread : Running.Threads())
        before[thread] = Running.ProcessorTime(thread);
    Asking.Flood("Heartbeat?\n", kHeartbeats, kHeartbeats);
    Sleep(0.003);
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
    // The time of a thread is brought up to date when it pauses.
    Sleep(0.003);
    const double after = Running.ProcessorTime(thread_);
    if (after <= before)
        throw std::runtime_error("the session under measurement has ended");
    return (after - before) / count * 1e6;
}

Pair::Pair(const Plan &plan) : stations_{Station(plan.Agent), Station(plan.Baseline)}
{
    for (Station &station : stations_)
        station.LogIn();
}

void Pair::KeepAlive()
{
    for (Station &station : stations_)
        static_cast<void>(station.Asking.Ask("Heartbeat?\n"));
}

void Pair::RequireSame(const std::string &request, const std::array<std::string, 2> &answers)
{
    if (answers[0] != answers[1])
        throw std::runtime_error("the baseline answers other bytes to " + request + answers[1] +
                                 "than the agent\n" + answers[0]);
    if (answers[0].find("Result=0") == std::string::npos)
        throw std::runtime_error("refused: " + request + answers[0]);
}

void LayOut(const Plan &plan, int events, int users)
{
    panel::PanelOptions options;
    options.Size = {events, users, users, 16};
    options.CommandTool = plan.CommandTool;
    panel::CreatePanel("/", options);
}

void ResetUsers(int users)
{
    panel::SqliteFile file(panel::PanelPaths("/").MainDatabase);
    file.Run("DELETE FROM User WHERE No>" + std::to_string(users));
    file.Run("DELETE FROM DBQueryInfo");
}

void Sleep(double seconds)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

} // namespace nimbra::bench
