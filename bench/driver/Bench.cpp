#include "driver/Bench.h"

#include "panel/SamplePanel.h"
#include "panel/Sqlite.h"

#include <algorithm>
#include <stdexcept>
#include <thread>

namespace nimbra::bench {

namespace {

/// Waits until the server has started all threads that it has without a session.
std::set<int> SettledThreads(const Server &server)
{
    std::set<int> threads;
    for (int quiet = 0; quiet < 10; ++quiet) {
        Sleep(0.02);
        const std::set<int> now = server.Threads();
        if (now != threads || now.size() < 2)
            quiet = 0;
        threads = now;
    }
    return threads;
}

} // namespace

Station::Station(const Side &side) : Running(side), Asking(side.Port), thread_(0)
{
    // The first connection shows that the server is up; what is measured is the session of the
    // second, which is the only thread that is new.
    static_cast<void>(Asking.Ask("Hello?\n"));
    const std::set<int> before = SettledThreads(Running);
    Asking = Client(side.Port);
    Asking.LogIn();
    const std::set<int> after = Running.Threads();
    const auto isNew = [&before](int thread) { return before.count(thread) == 0; };
    const auto found = std::find_if(after.begin(), after.end(), isNew);
    if (std::count_if(after.begin(), after.end(), isNew) != 1)
        throw std::runtime_error("the thread of a session cannot be told from others");
    thread_ = *found;
}

double Station::CostOf(const std::string &request, int count, std::size_t lines)
{
    const double before = Running.ProcessorTime(thread_);
    Asking.Flood(request, count, lines * static_cast<std::size_t>(count));
    // The time of a thread is brought up to date when it pauses.
    Sleep(0.003);
    return (Running.ProcessorTime(thread_) - before) / count * 1e6;
}

void Pair::KeepAlive()
{
    for (Station &station : stations_)
        static_cast<void>(station.Asking.Ask("Heartbeat?\n"));
}

void Pair::RequireSame(const std::string &request, const std::array<std::string, 2> &answers)
{
    if (answers[0] != answers[1])
        throw std::runtime_error("the floor answers other bytes to " + request + answers[1] +
                                 "than the agent\n" + answers[0]);
    if (answers[0].find("Result=0") == std::string::npos)
        throw std::runtime_error("refused: " + request + answers[0]);
}

void LayOut(const Plan &plan, int events, int users)
{
    panel::PanelOptions options;
    options.Size = {events, users, users, 16};
    options.CommandTool = plan.CommandTool;
    panel::LayOutPanel("/", options);
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
