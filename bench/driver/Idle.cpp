#include "bench/driver/Clock.h"
#include "bench/driver/Crowd.h"
#include "bench/driver/Panel.h"

#include <algorithm>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace nimbra::bench {

namespace {

constexpr char kGroup[] = "Processor time at rest";
constexpr char kUnit[] = "% of a processor";

/// A session that is silent ends after 10 seconds at the earliest.
constexpr double kSilentSeconds = 8;
/// Until what a server does at the beginning is over.
constexpr double kSettlingSeconds = 1;

constexpr Bound AtMost(double percent)
{
    return {Bound::Side::AtMost, percent, Bound::Subject::Agent};
}

/// The bound for so many idle sessions, if there is one.
std::optional<Bound> BoundOf(int sessions)
{
    switch (sessions) {
    case 0:
        return AtMost(0.1);
    case 200:
        return AtMost(1);
    case 1000:
        return AtMost(4);
    default:
        return std::nullopt;
    }
}

/// Share of a processor that a server takes while `wait` runs, in percent.
template <class Wait>
double ShareOf(const Server &server, const Wait &wait)
{
    const double begin = Now();
    const double before = server.ProcessorTime();
    wait();
    return (server.ProcessorTime() - before) / (Now() - begin) * 100;
}

double IdleShare(const Plan &plan, const ServerProgram &program, int sessions)
{
    const Server server(program);
    server.AwaitListening();
    Crowd crowd(program.Port);
    crowd.GrowTo(static_cast<std::size_t>(sessions));
    crowd.Rest(kSettlingSeconds);
    return ShareOf(server, [&] { crowd.Rest(plan.Work.IdleSeconds); });
}

void MeasureIdleSessions(const Plan &plan, Report *report)
{
    for (const int sessions : plan.Work.IdleSessions) {
        Rounds rounds;
        rounds.Add(Role::Agent, IdleShare(plan, plan.Agent, sessions));
        rounds.Add(Role::Reference, IdleShare(plan, plan.Baseline, sessions));
        const std::string name =
            sessions == 0 ? "no session" : std::to_string(sessions) + " idle sessions";
        report->Figures.push_back(rounds.Take(kGroup, name, kUnit, BoundOf(sessions)));
    }
}

/// The agent keeps the session of a client that has closed its connection, and ends it like one
/// that is silent.
void MeasureDisconnectedClients(const Plan &plan, Report *report)
{
    const int count = plan.Work.DisconnectedClients;
    const Server server(plan.Agent);
    {
        Crowd crowd(plan.Agent.Port);
        crowd.GrowTo(static_cast<std::size_t>(count));
        crowd.KeepAlive();
    }
    Sleep(kSettlingSeconds);
    Rounds share;
    share.Add(Role::Agent,
              ShareOf(server, [&] { Sleep(std::min(plan.Work.IdleSeconds, kSilentSeconds)); }));
    if (server.Threads().size() <= static_cast<std::size_t>(count))
        throw std::runtime_error("the sessions of disconnected clients ended too early");
    report->Figures.push_back(
        share.Take(kGroup, std::to_string(count) + " clients that have gone", kUnit, AtMost(0.5)));
}

/// A client asks for a list that is larger than all buffers, and reads nothing.
void MeasureStalledClient(const Plan &plan, Report *report)
{
    CreatePanel(plan, plan.Work.ListEvents, 1000);
    const Server server(plan.Agent);
    Client client(plan.Agent.Port);
    client.LogIn();
    client.Send("GetEventLogEx?Limit=" + std::to_string(plan.Work.ListEvents) + "\n");
    Sleep(2 * kSettlingSeconds);
    Rounds share;
    share.Add(Role::Agent,
              ShareOf(server, [&] { Sleep(std::min(plan.Work.IdleSeconds, kSilentSeconds)); }));
    report->Figures.push_back(
        share.Take(kGroup, "a client that takes nothing of a list", kUnit, AtMost(0.5)));
}

/// Connection attempts of this network that were refused.
double RefusedAttempts()
{
    std::ifstream file("/proc/self/net/snmp");
    std::string names;
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with("Tcp:"))
            continue;
        if (names.empty()) {
            names = line;
            continue;
        }
        std::istringstream keys(names);
        std::istringstream values(line);
        std::string value;
        for (std::string key; keys >> key && values >> value;)
            if (key == "AttemptFails")
                return std::stod(value);
    }
    throw std::runtime_error("refused connections cannot be counted");
}

/// Nothing listens on the cloud server's port.
void MeasureRefusingCloudServer(const Plan &plan, Report *report)
{
    std::ofstream("/etc/hosts", std::ios::app) << "127.0.0.1 " << plan.CloudHost << '\n';
    CreatePanel(plan, 1000, 1000, CloudLink::On);
    const Server server(plan.Agent);
    Client(plan.Agent.Port).LogIn();
    Sleep(kSettlingSeconds);
    const double begin = Now();
    const double before = RefusedAttempts();
    Rounds share;
    share.Add(Role::Agent, ShareOf(server, [&] { Sleep(plan.Work.IdleSeconds); }));
    Rounds attempts;
    attempts.Add(Role::Agent, (RefusedAttempts() - before) / (Now() - begin));
    report->Figures.push_back(
        share.Take(kGroup, "a cloud server that refuses", kUnit, AtMost(0.5)));
    report->Figures.push_back(
        attempts.Take(kGroup, "connection attempts to that server", "a second"));
}

} // namespace

void MeasureIdle(const Plan &plan, Report *report)
{
    CreatePanel(plan, 1000, 1000);
    MeasureIdleSessions(plan, report);
    MeasureDisconnectedClients(plan, report);
    MeasureStalledClient(plan, report);
    MeasureRefusingCloudServer(plan, report);
}

} // namespace nimbra::bench
