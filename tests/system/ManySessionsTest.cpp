// Many sessions at once: all of them are served, and nothing of them stays when they have ended.

#include "support/Agent.h"
#include "support/AgentTest.h"
#include "support/Limits.h"
#include "support/ManagementClient.h"
#include "support/Matchers.h"
#include "support/Sanitized.h"
#include "support/TestPanel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <sys/resource.h>

namespace nimbra::test {
namespace {

using ::testing::Optional;

/// A sanitizer's threads take their time.
constexpr std::size_t kSessions = kIsSanitized ? 250 : 1000;

/// For the clients of the test and for the sessions of the agent, which inherits it.
class DescriptorsForAll
{
public:
    DescriptorsForAll()
    {
        rlimit limit = {};
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
        limit.rlim_cur = kSessions + 100;
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
};

class ManySessions : private DescriptorsForAll, public AgentTest
{};

/// Main, accept, reaper and discovery; the cloud link is disabled and has ended.
constexpr std::size_t kThreads = 4;

/// Receives the greeting that each client has asked for.
void ReceiveGreetings(std::vector<ManagementClient> *clients)
{
    for (ManagementClient &client : *clients)
        ASSERT_THAT(client.ReadLine(), Optional(IsGreeting()));
}

/// Has every client ask, and only then looks for the answers.
void Greet(std::vector<ManagementClient> *clients)
{
    for (const ManagementClient &client : *clients)
        client.SendLine("Hello?");
    ReceiveGreetings(clients);
}

/// Keeps clients from the silence that would end their sessions.
class Keeper
{
public:
    explicit Keeper(std::vector<ManagementClient> *clients) : clients_(clients) {}

    /// To be called often; takes the agent's output as well, which must not fill its pipe.
    void Keep(Agent *agent)
    {
        static_cast<void>(agent->Log());
        if (sinceGreeting_.Seconds() < 3)
            return;
        Greet(clients_);
        sinceGreeting_ = Stopwatch();
    }

private:
    std::vector<ManagementClient> *clients_;
    Stopwatch sinceGreeting_;
};

/// Connects clients until there are `count`, each of which is served.
void Fill(std::vector<ManagementClient> *clients, std::size_t count, Agent *agent)
{
    Keeper keeper(clients);
    while (clients->size() < count) {
        clients->emplace_back();
        // One that is served no longer takes a place in the listener's short queue.
        ASSERT_THAT(clients->back().Ask("Hello?"), IsGreeting());
        ASSERT_NO_FATAL_FAILURE(keeper.Keep(agent));
    }
    ASSERT_NO_FATAL_FAILURE(Greet(clients));
}

/// Waits until no session is left, and no more threads and descriptors than at rest.
[[nodiscard]] bool IsAtRest(Agent *agent)
{
    return WaitUntil(
        [&] {
            static_cast<void>(agent->Log());
            return agent->Threads() == kThreads &&
                   agent->Descriptors() == Agent::kDescriptorsAtRest;
        },
        seconds(60));
}

/// Memory that the C library keeps for the stacks of threads and for small blocks: less than half
/// of what so many sessions take.
constexpr std::size_t kKeptKiB = kIsSanitized ? 262144 : 8192;

/// Expects that the agent has not grown since the C library took what it keeps.
void ExpectFlat(std::size_t residentBefore, const Agent &agent)
{
    // Sanitizers keep what has been freed.
    EXPECT_LE(agent.ResidentKiB(), residentBefore + (kIsSanitized ? 65536 : 1024));
}

TEST_F(ManySessions, AreAllServedAndLeaveNothingBehind)
{
    ASSERT_TRUE(IsAtRest(&agent_));
    const std::size_t atRest = agent_.ResidentKiB();
    std::size_t resident = 0;
    for (int round = 0; round < 2; ++round) {
        std::vector<ManagementClient> clients;
        ASSERT_NO_FATAL_FAILURE(Fill(&clients, kSessions, &agent_));
        EXPECT_EQ(agent_.Threads(), kThreads + kSessions);
        EXPECT_EQ(agent_.Descriptors(), Agent::kDescriptorsAtRest + kSessions);
        clients.clear();
        ASSERT_TRUE(IsAtRest(&agent_));
        if (round == 0)
            resident = agent_.ResidentKiB();
    }
    EXPECT_LE(agent_.ResidentKiB(), atRest + kKeptKiB);
    ExpectFlat(resident, agent_);
    EXPECT_THAT(ManagementClient().Ask("Hello?"), IsGreeting());
}

/// Where only some of 1000 clients fit at the same time, they come in rounds.
constexpr int kRounds = 4;

TEST(ManySessionsWith256Descriptors, AreServedAsFarAsTheyFitAndTheOthersLater)
{
    constexpr std::size_t kDescriptors = 256;
    constexpr std::size_t kFitting = kDescriptors - Agent::kDescriptorsAtRest;
    constexpr std::size_t kLate = 5;
    const TestPanel panel;
    Agent::Options options;
    options.Wrapper = {"prlimit", "--nofile=" + std::to_string(kDescriptors)};
    Agent agent(options);
    ASSERT_TRUE(IsAtRest(&agent));
    std::size_t resident = 0;
    std::vector<ManagementClient> late;
    for (int round = 0; round < kRounds; ++round) {
        // Those that had to wait are served as soon as the sessions of the others have ended.
        std::vector<ManagementClient> clients = std::exchange(late, {});
        ASSERT_NO_FATAL_FAILURE(ReceiveGreetings(&clients));
        ASSERT_TRUE(WaitUntil([&] { return agent.Threads() == kThreads + clients.size(); }));
        if (round == 1)
            resident = agent.ResidentKiB();
        ASSERT_NO_FATAL_FAILURE(Fill(&clients, kFitting, &agent));
        EXPECT_EQ(agent.Descriptors(), kDescriptors);
        for (std::size_t i = 0; i < kLate; ++i) {
            late.emplace_back();
            late.back().SendLine("Hello?");
        }
        EXPECT_TRUE(late.front().IsSilent(milliseconds(1500)));
        ASSERT_NO_FATAL_FAILURE(Greet(&clients));
    }
    ASSERT_NO_FATAL_FAILURE(ReceiveGreetings(&late));
    late.clear();
    ASSERT_TRUE(IsAtRest(&agent));
    ExpectFlat(resident, agent);
}

TEST(ManySessionsWith64Threads, AreServedAsFarAsTheyFitAndTheOthersLater)
{
    constexpr std::size_t kMostThreads = 64;
    constexpr std::size_t kClients = 250;
    const TestPanel panel;
    Agent agent(AsBoundUser());
    ASSERT_TRUE(IsAtRest(&agent));
    std::size_t resident = 0;
    {
        const SoftLimit limit(agent, "nproc", kMostThreads);
        for (int round = 0; round < kRounds; ++round) {
            std::vector<ManagementClient> served;
            Keeper keeper(&served);
            for (std::size_t i = 0; i < kClients; ++i) {
                ManagementClient client;
                if (client.Ask("Hello?") != "(no answer)")
                    served.push_back(std::move(client));
                ASSERT_NO_FATAL_FAILURE(keeper.Keep(&agent));
            }
            // The limit counts all that the user runs.
            EXPECT_GE(served.size(), 1U);
            EXPECT_LE(served.size(), kMostThreads - kThreads);
            ASSERT_NO_FATAL_FAILURE(Greet(&served));
            served.clear();
            ASSERT_TRUE(IsAtRest(&agent));
            if (round == 0)
                resident = agent.ResidentKiB();
        }
    }
    ExpectFlat(resident, agent);
    std::vector<ManagementClient> clients;
    ASSERT_NO_FATAL_FAILURE(Fill(&clients, kMostThreads, &agent));
}

} // namespace
} // namespace nimbra::test
