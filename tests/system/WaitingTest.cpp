// How the agent waits: it sleeps until there is something to do, answers at once when there is, and
// nothing that a client, a server or the system does makes it spin.

#include "support/Agent.h"
#include "support/AgentTest.h"
#include "support/DiscoveryProbe.h"
#include "support/Faults.h"
#include "support/Files.h"
#include "support/Limits.h"
#include "support/ManagementClient.h"
#include "support/Matchers.h"
#include "support/Sanitized.h"
#include "support/TestPanel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <sys/ioctl.h>
#include <sys/socket.h>

namespace nimbra::test {
namespace {

using ::testing::Optional;
using ::testing::StartsWith;

/// "At once" on a busy machine, and well below the second that a polling agent takes.
constexpr double kAtOnce = 0.2;

/// How long the agent is watched.
constexpr seconds kWatched(5);

/// How long its wake-ups are counted: so long that two a second are more than is allowed, but less
/// than a session may be idle.
constexpr seconds kCounted(7);

/// Processor time that waiting may take while it is watched; a thread that spins takes all of it.
constexpr double kLittleTime = kIsSanitized ? 0.5 : 0.2;

/// How often each thread of the agent has gone to sleep so far.
std::map<std::string, long> Sleeps(const Agent &agent)
{
    static constexpr char kField[] = "voluntary_ctxt_switches:";
    std::map<std::string, long> sleeps;
    for (const auto &task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(agent.Pid()) + "/task")) {
        std::istringstream status(ReadFile(task.path() / "status"));
        std::string line;
        while (std::getline(status, line))
            if (line.rfind(kField, 0) == 0)
                sleeps[task.path().filename()] = std::stol(line.substr(sizeof kField - 1));
    }
    return sleeps;
}

/// How often each thread goes to sleep in kCounted seconds, in ascending order. The thread that
/// ThreadSanitizer adds is left out: it is the one that sleeps most often.
std::vector<long> SleepsWhileWatched(const Agent &agent)
{
    std::map<std::string, long> sleeps = Sleeps(agent);
    std::this_thread::sleep_for(kCounted);
    std::vector<long> counts;
    for (const auto &[thread, count] : Sleeps(agent))
        counts.push_back(count - sleeps[thread]);
    std::sort(counts.begin(), counts.end());
    if (kIsThreadSanitized)
        counts.pop_back();
    return counts;
}

/// Expects that the agent takes next to no processor time while it is watched.
void ExpectNoProcessorTime(const Agent &agent)
{
    const double before = agent.CpuSeconds();
    std::this_thread::sleep_for(kWatched);
    EXPECT_LT(agent.CpuSeconds() - before, kLittleTime);
}

/// The median of measurements that begin at places spread evenly over a second: one that polls once
/// a second is half a second late, wherever in the second it polls.
double SpreadMedian(const std::function<double()> &measure)
{
    constexpr std::size_t kTries = 5;
    std::array<double, kTries> results = {};
    for (std::size_t i = 0; i < kTries; ++i) {
        timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        const double place = (static_cast<double>(i) + 0.5) / kTries;
        const double wait = place + 1 - static_cast<double>(now.tv_nsec) / 1e9;
        std::this_thread::sleep_for(std::chrono::duration<double>(wait >= 1 ? wait - 1 : wait));
        results.at(i) = measure();
    }
    std::sort(results.begin(), results.end());
    return results[kTries / 2];
}

/// How many TCP connections have been begun in this network so far.
long ConnectionAttempts()
{
    // Two lines with the names and the values of the fields.
    std::istringstream lines(ReadFile("/proc/net/snmp"));
    std::vector<std::string> tcp;
    for (std::string line; std::getline(lines, line);)
        if (line.rfind("Tcp:", 0) == 0)
            tcp.push_back(line);
    std::istringstream names(tcp.at(0));
    std::istringstream values(tcp.at(1));
    for (std::string name, value; names >> name && values >> value;)
        if (name == "ActiveOpens")
            return std::stol(value);
    ADD_FAILURE() << "no such field";
    return 0;
}

/// The first number that the agent's next descriptor gets.
std::size_t FirstFreeDescriptor(const Agent &agent)
{
    std::size_t number = 0;
    while (std::filesystem::is_symlink(std::filesystem::symlink_status(
        "/proc/" + std::to_string(agent.Pid()) + "/fd/" + std::to_string(number))))
        ++number;
    return number;
}

/// Waits until the agent can send no more to a client that reads nothing: nothing has arrived for a
/// second.
[[nodiscard]] bool HoldsAllThatFits(const ManagementClient &client)
{
    int arrived = 0;
    return WaitUntil([&] {
        const int before = arrived;
        std::this_thread::sleep_for(seconds(1));
        return ioctl(client.Socket(), FIONREAD, &arrived) == 0 && arrived == before;
    });
}

/// Waits until the agent has started all of its threads, and discovery has opened its sockets.
[[nodiscard]] bool IsAtRest(const Agent &agent)
{
    return WaitUntil([&] { return agent.Descriptors() == Agent::kDescriptorsAtRest; });
}

class Waiting : public AgentTest
{
protected:
    Waiting() { EXPECT_TRUE(IsAtRest(agent_)); }
};

class WaitingWithLongLog : public AgentTest
{
protected:
    WaitingWithLongLog() : AgentTest({.Events = 100000}) {}
};

TEST_F(Waiting, WakesNoThreadMoreThanOnceASecond)
{
    constexpr std::size_t kSessions = 3;
    for (std::size_t i = 0; i < kSessions; ++i)
        static_cast<void>(LogIn());
    // Main, accept, reaper and discovery; the cloud link is disabled and has ended.
    ASSERT_TRUE(WaitUntil([&] { return agent_.Threads() == 4 + kSessions; }));
    std::this_thread::sleep_for(milliseconds(200));
    const Stopwatch watch;
    const std::vector<long> sleeps = SleepsWhileWatched(agent_);
    // A wait for a lock or for a page of the program counts as well.
    const auto most = static_cast<long>(std::ceil(watch.Seconds())) + 4;
    ASSERT_EQ(sleeps.size(), 4 + kSessions);
    EXPECT_EQ(sleeps.front(), 0) << "the reaper sleeps until a session ends";
    EXPECT_THAT(sleeps, ::testing::Each(::testing::Le(most)));
}

TEST_F(Waiting, GreetsANewClientAtOnce)
{
    EXPECT_LT(SpreadMedian([] {
                  const Stopwatch watch;
                  ManagementClient client;
                  EXPECT_THAT(client.Ask("Hello?"), IsGreeting());
                  return watch.Seconds();
              }),
              kAtOnce);
}

TEST_F(Waiting, AnswersAQuietClientAtOnce)
{
    ManagementClient &client = LogIn();
    EXPECT_LT(SpreadMedian([&] {
                  const Stopwatch watch;
                  EXPECT_EQ(client.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
                  return watch.Seconds();
              }),
              kAtOnce);
}

TEST_F(Waiting, AnswersAProbeAtOnce)
{
    const DiscoveryProbe probe;
    EXPECT_LT(SpreadMedian([&] {
                  const Stopwatch watch;
                  EXPECT_THAT(probe.Ask("Scan?Key=2"), StartsWith("ScanResponse?Result=0&Key=2&"));
                  return watch.Seconds();
              }),
              kAtOnce);
}

TEST(WaitingReaper, DeletesASessionAtOnceWhenItHasEnded)
{
    const TestPanel panel;
    Faults faults;
    const Agent agent(faults.Preloaded());
    ASSERT_TRUE(IsAtRest(agent));
    // A session without a thread has ended as soon as it is made.
    faults.Fail(faults::Point::CreateThread, EAGAIN, 1, Faults::kAlways);
    EXPECT_LT(SpreadMedian([] {
                  const Stopwatch watch;
                  ManagementClient client;
                  EXPECT_TRUE(client.IsClosedByPeer());
                  return watch.Seconds();
              }),
              kAtOnce);
}

TEST_F(Waiting, TakesNoProcessorTimeForClientsThatHaveGone)
{
    constexpr std::size_t kClients = 50;
    const std::size_t threads = agent_.Threads();
    {
        std::vector<ManagementClient> clients(kClients);
        for (ManagementClient &client : clients)
            ASSERT_THAT(client.Ask("Hello?"), IsGreeting());
    }
    ExpectNoProcessorTime(agent_);
    // Their sessions last until they have been silent for too long.
    EXPECT_GE(agent_.Threads(), threads + kClients - 1);
}

TEST_F(Waiting, TakesNoProcessorTimeForClientsThatSendNoMore)
{
    std::vector<ManagementClient> clients(10);
    for (ManagementClient &client : clients) {
        client.Send("Hello?\nhalf a line");
        ASSERT_EQ(shutdown(client.Socket(), SHUT_WR), 0);
    }
    ExpectNoProcessorTime(agent_);
    for (ManagementClient &client : clients)
        EXPECT_THAT(client.ReadLine(), Optional(IsGreeting()));
}

TEST_F(WaitingWithLongLog, TakesNoProcessorTimeForAClientThatStopsInTheMiddleOfAList)
{
    ManagementClient &client = LogIn();
    client.SendLine("GetEventLogEx?Offset=0&Limit=100000");
    ASSERT_THAT(client.ReadLine(), Optional(StartsWith("GetEventLogExResponse?Result=0&")));
    ASSERT_TRUE(HoldsAllThatFits(client));
    ExpectNoProcessorTime(agent_);
}

TEST_F(Waiting, TakesNoProcessorTimeForAClientThatCannotBeAccepted)
{
    ASSERT_THAT(Connect().Ask("Hello?"), IsGreeting());
    std::unique_ptr<ManagementClient> late;
    {
        const SoftLimit noMore(agent_, "nofile", FirstFreeDescriptor(agent_));
        late = std::make_unique<ManagementClient>();
        late->SendLine("Hello?");
        ExpectNoProcessorTime(agent_);
        EXPECT_TRUE(late->IsSilent(milliseconds(0)));
    }
    const Stopwatch watch;
    EXPECT_THAT(late->ReadLine(), Optional(IsGreeting()));
    EXPECT_LT(watch.Seconds(), 5) << "it is tried again every second";
}

TEST(WaitingListener, TriesAFailedAcceptOnceASecond)
{
    const TestPanel panel;
    Faults faults;
    const Agent agent(faults.Preloaded());
    ManagementClient served;
    ASSERT_THAT(served.Ask("Hello?"), IsGreeting());
    faults.Fail(faults::Point::Accept, ENFILE, 1, Faults::kAlways);
    const Stopwatch watch;
    const ManagementClient late;
    std::this_thread::sleep_for(kWatched);
    const std::size_t calls = faults.Calls(faults::Point::Accept);
    EXPECT_GE(calls, 3U);
    EXPECT_LE(static_cast<double>(calls), watch.Seconds() + 2);
}

TEST(WaitingDiscovery, TriesAFailedReceiptOnceASecond)
{
    const TestPanel panel;
    Faults faults;
    Agent agent(faults.Preloaded());
    ASSERT_TRUE(IsAtRest(agent));
    const DiscoveryProbe probe;
    faults.Fail(faults::Point::ReceiveDatagram, ECONNREFUSED, 1, Faults::kAlways);
    const Stopwatch watch;
    probe.Send("Scan?Key=5");
    std::this_thread::sleep_for(kWatched);
    const std::size_t calls = faults.Calls(faults::Point::ReceiveDatagram);
    EXPECT_GE(calls, 3U);
    EXPECT_LE(static_cast<double>(calls), watch.Seconds() + 2);
    faults.Stop(faults::Point::ReceiveDatagram);
    EXPECT_THAT(probe.Receive(), Optional(StartsWith("ScanResponse?Result=0&Key=5&")));
}

TEST(WaitingLink, TriesAServerThatRefusesOnceASecond)
{
    const CloudPanel panel;
    Agent agent;
    // The first attempt is under way within a second, and goes on for ten.
    std::this_thread::sleep_for(seconds(2));
    const Stopwatch watch;
    const long before = ConnectionAttempts();
    ExpectNoProcessorTime(agent);
    const long attempts = ConnectionAttempts() - before;
    EXPECT_GE(attempts, 3);
    EXPECT_LE(static_cast<double>(attempts), watch.Seconds() + 1);
    EXPECT_EQ(agent.CountInLog("connect fail"), 0U);
}

} // namespace
} // namespace nimbra::test
