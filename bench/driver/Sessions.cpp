#include "bench/driver/Bench.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <stdexcept>

#include <sys/epoll.h>
#include <unistd.h>

namespace nimbra::bench {

namespace {

namespace fs = std::filesystem;

constexpr double kHeartbeatSeconds = 3;

/// The sessions of one server.
class Crowd
{
public:
    /// Begins with one connection, made as soon as the server listens.
    explicit Crowd(int port) : port_(port) { clients_.emplace_back(port); }

    /// Waits until the first one is served.
    void GreetFirst() { Exchange(0, 1, "Hello?\n"); }

    [[nodiscard]] std::vector<Client> &Clients() { return clients_; }

    /// Adds sessions until there are as many, all logged in.
    void GrowTo(std::size_t count)
    {
        KeepAlive();
        for (double last = Now(); clients_.size() < count;) {
            clients_.emplace_back(port_);
            if (Now() - last > kHeartbeatSeconds) {
                KeepAlive();
                last = Now();
            }
        }
        Exchange(loggedIn_, count, "Hello?\n");
        Exchange(loggedIn_, count, "Login?Username=admin&Password=admin1234\n");
        loggedIn_ = count;
        KeepAlive();
    }

private:
    void KeepAlive() { Exchange(0, loggedIn_, "Heartbeat?\n"); }

    void Exchange(std::size_t from, std::size_t to, const std::string &request)
    {
        for (std::size_t i = from; i < to; ++i)
            clients_[i].Send(request);
        for (std::size_t i = from; i < to; ++i)
            if (clients_[i].ReadLine().find("Result=0") == std::string::npos)
                throw std::runtime_error("refused: " + request);
    }

    int port_;
    std::vector<Client> clients_;
    std::size_t loggedIn_ = 0; ///< so many from the first on have logged in
};

/// Requests per second when every session sends the next one as soon as it has its answer.
double LoadedRate(std::vector<Client> *clients, double seconds)
{
    const std::string request = "GetDoorInfo?DoorNo=1\n";
    const Descriptor events(epoll_create1(EPOLL_CLOEXEC));
    for (std::size_t i = 0; i < clients->size(); ++i) {
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.u64 = i;
        epoll_ctl(events.Get(), EPOLL_CTL_ADD, (*clients)[i].Socket(), &event);
        (*clients)[i].Send(request);
    }
    int answers = 0;
    std::size_t open = clients->size();
    const double begin = Now();
    double end = begin;
    while (open > 0) {
        std::array<epoll_event, 64> ready;
        const int count =
            epoll_wait(events.Get(), ready.data(), static_cast<int>(ready.size()), 20000);
        if (count <= 0)
            throw std::runtime_error("the server is silent under load");
        for (int i = 0; i < count; ++i) {
            Client &client = (*clients)[ready[static_cast<std::size_t>(i)].data.u64];
            static_cast<void>(client.ReadLine());
            if (Now() - begin < seconds) {
                ++answers;
                end = Now();
                client.Send(request);
            } else {
                --open;
            }
        }
    }
    return answers / (end - begin);
}

/// Milliseconds of processor time a second of sessions that send a heartbeat now and then.
double IdleCost(const Server &server, std::vector<Client> *clients, double seconds)
{
    const double before = server.ProcessorTime();
    const double begin = Now();
    for (std::size_t i = 0; i < clients->size(); ++i) {
        const double due =
            begin + seconds * static_cast<double>(i) / static_cast<double>(clients->size());
        Sleep(std::max(0.0, due - Now()));
        static_cast<void>((*clients)[i].Ask("Heartbeat?\n"));
    }
    Sleep(std::max(0.0, begin + seconds - Now()));
    return (server.ProcessorTime() - before) * 1000 / (Now() - begin);
}

/// What one life of the agent and one of the baseline are compared in.
struct Findings
{
    Rounds Listening;
    Rounds Start;
    Rounds Memory;
    Rounds SessionMemory;
    std::map<int, Rounds> Idle;
    std::map<int, Rounds> Load;
};

void MeasureIdle(const Plan &plan, bool isAgent, const Server &server, Crowd *crowd,
                 std::map<int, double> *memory, Findings *findings)
{
    const int count = static_cast<int>(crowd->Clients().size());
    findings->Idle[count].Add(isAgent, IdleCost(server, &crowd->Clients(), plan.Work.IdleSeconds));
    (*memory)[count] = server.PrivateMemory();
}

void MeasureLife(const Plan &plan, bool isAgent, Findings *findings)
{
    const Side &side = isAgent ? plan.Agent : plan.Baseline;
    const double begin = Now();
    const Server server(side);
    Crowd crowd(side.Port);
    findings->Listening.Add(isAgent, (Now() - begin) * 1000);
    crowd.GreetFirst();
    findings->Start.Add(isAgent, (Now() - begin) * 1000);
    std::map<int, double> memory;
    std::map<int, bool> levels;
    for (const int count : plan.Work.LoadSessions)
        levels[count] = true;
    for (const int count : plan.Work.IdleSessions)
        levels.emplace(count, false);
    for (const auto &[count, isLoaded] : levels) {
        crowd.GrowTo(static_cast<std::size_t>(count));
        const auto &idle = plan.Work.IdleSessions;
        if (std::find(idle.begin(), idle.end(), count) != idle.end())
            MeasureIdle(plan, isAgent, server, &crowd, &memory, findings);
        if (isLoaded)
            findings->Load[count].Add(isAgent, LoadedRate(&crowd.Clients(), plan.Work.LoadSeconds));
    }
    const auto &[few, least] = *memory.begin();
    const auto &[many, most] = *memory.rbegin();
    findings->Memory.Add(isAgent, least);
    findings->SessionMemory.Add(isAgent, (most - least) / (many - few));
}

/// Size of a program without its symbols, in KiB.
double StrippedSize(const fs::path &program)
{
    const fs::path stripped = "/tmp/nimbra-bench-stripped";
    const std::string command = "strip -o " + stripped.string() + " '" + program.string() + "'";
    if (std::system(command.c_str()) != 0)
        throw std::runtime_error("strip has failed");
    const double size = static_cast<double>(fs::file_size(stripped)) / 1024;
    fs::remove(stripped);
    return size;
}

} // namespace

void MeasureSessions(const Plan &plan, Report *report)
{
    LayOut(plan, 1000, 1000);
    Findings findings;
    for (int turn = 0; turn < 2 * plan.Work.SessionRounds; ++turn)
        MeasureLife(plan, (turn + turn / 2) % 2 == 0, &findings);

    constexpr char kGroup[] = "Idle and size";
    auto &figures = report->Figures;
    for (const auto &[count, rounds] : findings.Idle)
        figures.push_back(
            rounds.Take(kGroup, "processor time, idle sessions: " + std::to_string(count), "ms/s"));
    figures.push_back(findings.Memory.Take(kGroup, "memory with one session", "KiB"));
    figures.push_back(findings.SessionMemory.Take(kGroup, "memory of a session more", "KiB"));
    figures.push_back(findings.Listening.Take(kGroup, "start to listening", "ms"));
    figures.push_back(findings.Start.Take(kGroup, "start to first accepted connection", "ms"));
    Rounds size;
    size.Add(true, StrippedSize(plan.Agent.Program));
    size.Add(false, StrippedSize(plan.Baseline.Program));
    figures.push_back(size.Take(kGroup, "stripped program", "KiB"));

    Curve curve{"GetDoorInfo?", "requests/s", {}};
    for (const auto &[count, rounds] : findings.Load)
        curve.Points.push_back({count, rounds.Take("", "GetDoorInfo?", "requests/s")});
    report->Sessions.push_back(curve);
}

} // namespace nimbra::bench
