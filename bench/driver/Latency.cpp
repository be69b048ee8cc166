#include "base/Descriptor.h"
#include "bench/driver/Client.h"
#include "bench/driver/Clock.h"
#include "bench/driver/Panel.h"

#include <array>
#include <cerrno>
#include <fstream>
#include <optional>
#include <random>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace nimbra::bench {

namespace {

constexpr Bound kAgainstBaseline{Bound::Side::AtMost, 1.15};
constexpr Bound kAgainstRedis{Bound::Side::AtMost, 2.0};
constexpr Bound kMilliseconds{Bound::Side::AtMost, 2.0, Bound::Subject::Agent};

/// A request, and the size of its answer.
struct Exchange
{
    std::string_view Request;
    std::size_t AnswerSize;
};

constexpr Exchange kHeartbeat = {"Heartbeat?\n",
                                 std::string_view("HeartbeatResponse?Result=0\n").size()};
constexpr Exchange kPing = {"PING\r\n", std::string_view("+PONG\r\n").size()};
/// CONNECT of MQTT 3.1.1: clean session, no keep-alive limit, client identifier "b"; CONNACK.
constexpr Exchange kMqttConnect = {{"\x10\x0d\x00\x04MQTT\x04\x02\x00\x00\x00\x01"
                                    "b",
                                    15},
                                   4};
constexpr Exchange kMqttPing = {{"\xc0\x00", 2}, 2};

/// One of the servers that are measured in turn, with a client that is ready to exchange.
class Contender
{
public:
    Contender(const ServerProgram &program, Exchange exchange)
        : server_(program), client_(program.Port), exchange_(exchange)
    {}

    [[nodiscard]] Client &Connection() { return client_; }

    /// Microseconds of one exchange.
    [[nodiscard]] double Trip()
    {
        const double begin = Now();
        client_.Exchange(exchange_.Request, exchange_.AnswerSize);
        return (Now() - begin) * 1e6;
    }

private:
    Server server_;
    Client client_;
    Exchange exchange_;
};

/// The times of the agent against one of the others, over all rounds.
struct Comparison
{
    std::string Name;
    std::optional<Bound> Limit;
    Rounds Quiet;
    Rounds Busy;
};

/// The times of the exchanges of a round.
struct Trips
{
    std::vector<double> Quiet; ///< with a pause before each
    std::vector<double> Busy;  ///< back to back
};

Trips MeasureTrips(const Plan &plan, std::mt19937 *random, Contender *contender)
{
    // Long enough for a server to go back to its waiting.
    std::uniform_real_distribution<double> pause(0.002, 0.006);
    Trips trips;
    for (int i = 0; i < plan.Work.QuietTrips; ++i) {
        Sleep(pause(*random));
        trips.Quiet.push_back(contender->Trip());
    }
    for (int i = 0; i < plan.Work.BusyTrips; ++i)
        trips.Busy.push_back(contender->Trip());
    return trips;
}

std::string MosquittoConfiguration(int port)
{
    return "listener " + std::to_string(port) +
           " 127.0.0.1\nallow_anonymous true\nuser root\nlog_dest none\n";
}

void MeasureRoundTrips(const Plan &plan, Report *report)
{
    std::ofstream(plan.Mosquitto.Arguments.back()) << MosquittoConfiguration(plan.Mosquitto.Port);
    Contender agent(plan.Agent, kHeartbeat);
    Contender baseline(plan.Baseline, kHeartbeat);
    Contender redis(plan.Redis, kPing);
    Contender mosquitto(plan.Mosquitto, kMqttPing);
    agent.Connection().LogIn();
    baseline.Connection().LogIn();
    mosquitto.Connection().Exchange(kMqttConnect.Request, kMqttConnect.AnswerSize);

    const std::array<Contender *, 4> contenders = {&agent, &baseline, &redis, &mosquitto};
    std::array<Comparison, 3> comparisons = {{{"baseline", kAgainstBaseline, {}, {}},
                                              {"Redis PING", kAgainstRedis, {}, {}},
                                              {"Mosquitto PINGREQ", {}, {}, {}}}};
    std::mt19937 random(1);
    std::array<std::vector<double>, 2> all; // quiet exchanges of the agent and of the baseline
    for (int round = 0; round < plan.Work.TripRounds; ++round) {
        std::array<Trips, 4> trips;
        // Each is the first of a round in its turn.
        for (std::size_t i = 0; i < contenders.size(); ++i) {
            const std::size_t place = (i + static_cast<std::size_t>(round)) % contenders.size();
            trips[place] = MeasureTrips(plan, &random, contenders[place]);
        }
        for (std::size_t i = 0; i < comparisons.size(); ++i) {
            comparisons[i].Quiet.Add(Role::Agent, Median(trips[0].Quiet));
            comparisons[i].Quiet.Add(Role::Reference, Median(trips[i + 1].Quiet));
            comparisons[i].Busy.Add(Role::Agent, Median(trips[0].Busy));
            comparisons[i].Busy.Add(Role::Reference, Median(trips[i + 1].Busy));
        }
        for (std::size_t i = 0; i < all.size(); ++i)
            all[i].insert(all[i].end(), trips[i].Quiet.begin(), trips[i].Quiet.end());
    }
    constexpr char kGroup[] = "Round trip";
    auto &figures = report->Figures;
    for (const Comparison &line : comparisons)
        figures.push_back(
            line.Quiet.Take(kGroup, "Heartbeat?, quiet, p50, " + line.Name, "us", line.Limit));
    for (const Comparison &line : comparisons)
        figures.push_back(line.Busy.Take(kGroup, "Heartbeat?, back to back, p50, " + line.Name,
                                         "us", line.Limit));
    Rounds tail;
    tail.Add(Role::Agent, Quantile(all[0], 0.99));
    tail.Add(Role::Reference, Quantile(all[1], 0.99));
    figures.push_back(tail.Take(kGroup, "Heartbeat?, quiet, p99, baseline", "us"));
}

/// Milliseconds from a connect to the answer to the first request.
double FirstAnswer(int port, const std::string &request)
{
    const double begin = Now();
    Client client(port);
    if (client.Ask(request).empty())
        throw std::runtime_error("no answer to the first request");
    return (Now() - begin) * 1000;
}

void MeasureConnections(const Plan &plan, Report *report)
{
    const Server agent(plan.Agent);
    const Server baseline(plan.Baseline);
    const Server redis(plan.Redis);
    Rounds againstBaseline;
    Rounds againstRedis;
    std::mt19937 random(2);
    std::uniform_real_distribution<double> pause(0.005, 0.03);
    for (int i = 0; i < plan.Work.Connections; ++i) {
        Sleep(pause(random));
        const double time = FirstAnswer(plan.Agent.Port, "Hello?\n");
        againstBaseline.Add(Role::Agent, time);
        againstRedis.Add(Role::Agent, time);
        Sleep(pause(random));
        againstBaseline.Add(Role::Reference, FirstAnswer(plan.Baseline.Port, "Hello?\n"));
        Sleep(pause(random));
        againstRedis.Add(Role::Reference, FirstAnswer(plan.Redis.Port, std::string(kPing.Request)));
    }
    report->Figures.push_back(
        againstBaseline.Take("Latency", "connect to greeting, p50, baseline", "ms", kMilliseconds));
    report->Figures.push_back(
        againstRedis.Take("Latency", "connect to greeting, p50, Redis PING", "ms"));
}

/// Sends discovery probes to the agent and receives its broadcast answers.
class Prober
{
public:
    Prober() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        const timeval limit = {20, 0};
        const sockaddr_in own = Address(INADDR_ANY, 9702);
        if (!socket_.IsOpen() ||
            setsockopt(socket_.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0 ||
            bind(socket_.Get(), reinterpret_cast<const sockaddr *>(&own), sizeof own) != 0)
            throw std::system_error(errno, std::generic_category(), "no socket for probes");
    }

    /// Milliseconds from a probe to its answer.
    [[nodiscard]] double Probe(int key) const
    {
        const sockaddr_in panel = Address(INADDR_LOOPBACK, 9701);
        const std::string probe = "Scan?Key=" + std::to_string(key);
        const std::string expected = "ScanResponse?Result=0&Key=" + std::to_string(key) + "&";
        std::array<char, 2048> answer;
        const double begin = Now();
        if (sendto(socket_.Get(), probe.data(), probe.size(), 0,
                   reinterpret_cast<const sockaddr *>(&panel), sizeof panel) < 0)
            throw std::system_error(errno, std::generic_category(), "a probe cannot be sent");
        const ssize_t size = recv(socket_.Get(), answer.data(), answer.size(), 0);
        const double time = (Now() - begin) * 1000;
        if (size < 0 ||
            !std::string_view(answer.data(), static_cast<std::size_t>(size)).starts_with(expected))
            throw std::runtime_error("no answer to a probe");
        return time;
    }

private:
    static sockaddr_in Address(in_addr_t address, int port)
    {
        sockaddr_in result = {};
        result.sin_family = AF_INET;
        result.sin_port = htons(static_cast<std::uint16_t>(port));
        result.sin_addr.s_addr = htonl(address);
        return result;
    }

    Descriptor socket_;
};

void MeasureProbes(const Plan &plan, Report *report)
{
    const Server agent(plan.Agent);
    // Discovery begins to listen before clients are served.
    Client(plan.Agent.Port).LogIn();
    const Prober prober;
    Rounds times;
    std::mt19937 random(3);
    std::uniform_real_distribution<double> pause(0.005, 0.03);
    for (int i = 0; i < plan.Work.Probes; ++i) {
        Sleep(pause(random));
        times.Add(Role::Agent, prober.Probe(i + 1));
    }
    report->Figures.push_back(
        times.Take("Latency", "discovery probe to answer, p50", "ms", kMilliseconds));
}

void MeasureStarts(const Plan &plan, Report *report)
{
    Rounds listening;
    Rounds answering;
    for (int turn = 0; turn < 2 * plan.Work.Starts; ++turn) {
        const Role role = RoleAt(turn);
        const ServerProgram &program = role == Role::Agent ? plan.Agent : plan.Baseline;
        const double begin = Now();
        const Server server(program);
        Client client(program.Port);
        listening.Add(role, (Now() - begin) * 1000);
        static_cast<void>(client.Ask("Hello?\n"));
        answering.Add(role, (Now() - begin) * 1000);
    }
    report->Figures.push_back(listening.Take("Latency", "start to listening", "ms"));
    report->Figures.push_back(answering.Take("Latency", "start to first answer", "ms"));
}

} // namespace

void MeasureLatency(const Plan &plan, Report *report)
{
    CreatePanel(plan, 1000, 1000);
    MeasureRoundTrips(plan, report);
    MeasureConnections(plan, report);
    MeasureProbes(plan, report);
    MeasureStarts(plan, report);
}

} // namespace nimbra::bench
