// Many sessions at once: all of them are served, and nothing of them stays when they have ended.

#include "support/Agent.h"
#include "support/AgentTest.h"
#include "support/ManagementClient.h"
#include "support/TestPanel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <vector>

#include <sys/resource.h>

namespace nimbra::test {
namespace {

using ::testing::StartsWith;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSanitized = true;
#elif defined(__has_feature)
constexpr bool kIsSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kIsSanitized = false;
#endif

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

/// Has every client ask, and only then looks for the answers.
void Greet(std::vector<ManagementClient> *clients)
{
    for (const ManagementClient &client : *clients)
        client.SendLine("Hello?");
    for (ManagementClient &client : *clients)
        ASSERT_THAT(client.ReadLine().value_or("(none)"),
                    StartsWith("HelloResponse?Result=0&Key="));
}

TEST_F(ManySessions, AreAllServedAndLeaveNothingBehind)
{
    // Main, accept, reaper and discovery; the cloud link is disabled and has ended.
    constexpr std::size_t kThreads = 4;
    const auto isAtRest = [&] {
        static_cast<void>(agent_.Log());
        return agent_.Threads() == kThreads && agent_.Descriptors() == Agent::kDescriptorsAtRest;
    };
    ASSERT_TRUE(WaitUntil(isAtRest));
    std::array<std::size_t, 2> resident = {};
    // In the first round the C library takes what it keeps for the next.
    for (std::size_t &after : resident) {
        std::vector<ManagementClient> clients;
        Stopwatch sinceGreeting;
        while (clients.size() < kSessions) {
            clients.emplace_back();
            // One that is served no longer takes a place in the listener's short queue.
            ASSERT_THAT(clients.back().Ask("Hello?"), StartsWith("HelloResponse?Result=0&Key="));
            // None may end for its silence while the others still come.
            if (sinceGreeting.Seconds() > 3) {
                ASSERT_NO_FATAL_FAILURE(Greet(&clients));
                sinceGreeting = Stopwatch();
            }
            static_cast<void>(agent_.Log());
        }
        ASSERT_NO_FATAL_FAILURE(Greet(&clients));
        EXPECT_EQ(agent_.Threads(), kThreads + kSessions);
        EXPECT_EQ(agent_.Descriptors(), Agent::kDescriptorsAtRest + kSessions);
        clients.clear();
        EXPECT_TRUE(WaitUntil(isAtRest, seconds(60)));
        after = agent_.ResidentKiB();
    }
    // Sanitizers keep what has been freed.
    EXPECT_LE(resident[1], resident[0] + (kIsSanitized ? 65536 : 1024));
    EXPECT_THAT(ManagementClient().Ask("Hello?"), StartsWith("HelloResponse?Result=0&Key="));
}

} // namespace
} // namespace nimbra::test
