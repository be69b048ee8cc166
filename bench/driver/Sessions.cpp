#include "base/Descriptor.h"
#include "bench/driver/Clock.h"
#include "bench/driver/Crowd.h"
#include "bench/driver/Panel.h"

#include <algorithm>
#include <array>
#include <span>
#include <stdexcept>

#include <sys/epoll.h>

namespace nimbra::bench {

namespace {

constexpr char kRequest[] = "GetDoorInfo?DoorNo=1\n";
constexpr char kGroup[] = "Throughput";
constexpr Bound kAgainstBaseline{Bound::Side::AtLeast, 1.00, Bound::Subject::Agent};
/// A rate that does not fall is measured to within 5 % of the one before.
constexpr Bound kAgainstFewer{Bound::Side::AtLeast, 0.95, Bound::Subject::Agent};

/// A server with as many sessions as the largest load needs.
class LoadedServer
{
public:
    LoadedServer(const ServerProgram &program, const Plan &plan)
        : server_(program), sessions_(program.Port)
    {
        sessions_.GrowTo(static_cast<std::size_t>(plan.Work.LoadSessions.back()));
    }

    [[nodiscard]] Crowd &Sessions() { return sessions_; }

private:
    Server server_;
    Crowd sessions_;
};

/// Requests a second when each of the sessions sends the next one as soon as it has its answer.
double LoadedRate(std::span<Client> clients, double seconds)
{
    const Descriptor events(epoll_create1(EPOLL_CLOEXEC));
    for (std::size_t i = 0; i < clients.size(); ++i) {
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.u64 = i;
        epoll_ctl(events.Get(), EPOLL_CTL_ADD, clients[i].Socket(), &event);
        clients[i].Send(kRequest);
    }
    int answers = 0;
    std::size_t open = clients.size();
    const double begin = Now();
    double end = begin;
    while (open > 0) {
        std::array<epoll_event, 64> ready;
        const int count =
            epoll_wait(events.Get(), ready.data(), static_cast<int>(ready.size()), 20000);
        if (count <= 0)
            throw std::runtime_error("the server is silent under load");
        for (int i = 0; i < count; ++i) {
            Client &client = clients[ready[static_cast<std::size_t>(i)].data.u64];
            static_cast<void>(client.ReadLine());
            if (Now() - begin < seconds) {
                ++answers;
                end = Now();
                client.Send(kRequest);
            } else {
                --open;
            }
        }
    }
    return answers / (end - begin);
}

/// The lowest ratio of a rate to the highest one with fewer sessions; 1 with a single rate.
double LowestAgainstFewer(const Curve &curve)
{
    double lowest = 1;
    double highest = 0;
    for (const Curve::Point &point : curve.Points) {
        if (highest > 0)
            lowest = std::min(lowest, point.Value.Agent / highest);
        highest = std::max(highest, point.Value.Agent);
    }
    return lowest;
}

} // namespace

void MeasureSessions(const Plan &plan, Report *report)
{
    CreatePanel(plan, 1000, 1000);
    LoadedServer agent(plan.Agent, plan);
    LoadedServer baseline(plan.Baseline, plan);
    // Every round has every load: rates are compared that the machine gave within seconds.
    std::vector<Rounds> rounds(plan.Work.LoadSessions.size());
    for (int turn = 0; turn < 2 * plan.Work.LoadRounds; ++turn)
        for (std::size_t i = 0; i < rounds.size(); ++i) {
            agent.Sessions().KeepAlive();
            baseline.Sessions().KeepAlive();
            const Role role = RoleAt(turn);
            Crowd &crowd = role == Role::Agent ? agent.Sessions() : baseline.Sessions();
            const auto count = static_cast<std::size_t>(plan.Work.LoadSessions[i]);
            const std::span<Client> clients(crowd.Clients().data(), count);
            rounds[i].Add(role, LoadedRate(clients, plan.Work.LoadSeconds));
        }
    Curve curve{"GetDoorInfo?", "requests/s", {}};
    std::vector<double> ratios;
    for (std::size_t i = 0; i < rounds.size(); ++i) {
        const Figure figure = rounds[i].Take("", "GetDoorInfo?", "requests/s");
        ratios.push_back(figure.Ratio.value_or(0));
        curve.Points.push_back({plan.Work.LoadSessions[i], figure});
    }
    report->Sessions.push_back(curve);
    report->Figures.push_back({kGroup,
                               "any number of sessions, lowest ratio to the baseline",
                               "",
                               Quantile(ratios, 0),
                               {},
                               {},
                               kAgainstBaseline});
    report->Figures.push_back({kGroup,
                               "more sessions, lowest ratio to the rate with fewer",
                               "",
                               LowestAgainstFewer(curve),
                               {},
                               {},
                               kAgainstFewer});
}

} // namespace nimbra::bench
