// The system clock is set forward and back by an hour while the agent runs.

#include "simulator/cloud/CloudServer.h"
#include "support/Agent.h"
#include "support/CloudRequests.h"
#include "support/Faults.h"
#include "support/Files.h"
#include "support/ManagementClient.h"
#include "support/TestPanel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <limits>
#include <string>

namespace nimbra::test {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Ge;
using ::testing::Lt;
using ::testing::MatchesRegex;

constexpr std::int64_t kHour = 3600;

/// Longer than any wait that starts again.
constexpr milliseconds kRestarted = seconds(60);

class Clock : public ::testing::Test
{
protected:
    /// Waits until the cloud server has received `count` heartbeats.
    bool WaitForHeartbeats(std::size_t count)
    {
        return WaitForRequests(server_, agent_, "HeartBeat?", count, kRestarted);
    }

    void SetBack() { faults_.SetClock(-kHour); }
    void SetForward() { faults_.SetClock(kHour); }

    Faults faults_;
    CloudPanel panel_;
    simulator::CloudServer server_;
    Agent agent_{faults_.Preloaded()};
};

TEST_F(Clock, SilentSessionEndsAfterClockIsSetBack)
{
    ManagementClient silent = LoggedIn();
    const Stopwatch watch;
    SetBack();
    EXPECT_TRUE(silent.IsClosedByPeer(kRestarted));
    EXPECT_GT(watch.Seconds(), 9);
}

TEST_F(Clock, StalledUploadEndsAfterClockIsSetBack)
{
    ManagementClient client = LoggedIn();
    client.Send("SetUserImage?UserNo=1&FileName=half.jpg&Size=1000\nhalf");
    EXPECT_TRUE(client.IsSilent(milliseconds(500)));
    SetBack();
    EXPECT_EQ(client.ReadLine(kRestarted), "SetUserImageResponse?Result=3");
}

TEST_F(Clock, ActiveSessionStaysOpenAfterClockIsSetBack)
{
    ManagementClient client = LoggedIn();
    SetBack();
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(client.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
        EXPECT_TRUE(client.IsSilent(seconds(3)));
    }
}

TEST_F(Clock, CloudHeartbeatsContinueAfterClockIsSetBack)
{
    ASSERT_TRUE(WaitForHeartbeats(2));
    SetBack();
    EXPECT_TRUE(WaitForHeartbeats(server_.Count("HeartBeat?") + 3));
}

TEST_F(Clock, CloudHeartbeatsContinueAfterClockIsSetForward)
{
    ASSERT_TRUE(WaitForHeartbeats(2));
    SetForward();
    EXPECT_TRUE(WaitForHeartbeats(server_.Count("HeartBeat?") + 3));
}

TEST_F(Clock, RegistrationIsRetriedAfterClockIsSetBack)
{
    server_.SetAnswer(
        [](const std::string &) { return simulator::Reply{"SetDeviceInfoResponse?Result=5\n"}; });
    ASSERT_TRUE(agent_.WaitForMessage("ServerManager.cpp", "Process", "SetDeviceInfo fail"));
    SetBack();
    EXPECT_TRUE(agent_.WaitForMessage("ServerManager.cpp", "Process", "SetDeviceInfo fail", 2,
                                      seconds(90)));
}

TEST_F(Clock, SessionsEndAndNewOnesAreServedAfterClockIsSetForward)
{
    ManagementClient client = LoggedIn();
    SetForward();
    // Sooner than a session that is only silent.
    EXPECT_TRUE(client.IsClosedByPeer(seconds(8)));
    ManagementClient next = LoggedIn();
    EXPECT_EQ(next.Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=1");
}

TEST_F(Clock, TimesAfter2038Keep32Bits)
{
    ASSERT_TRUE(WaitForHeartbeats(1));
    // A moment after the last second of 32 bits, which then reads as the first one.
    constexpr std::int64_t kSeconds = (std::int64_t{1} << 31) + 1000;
    constexpr int kAsNumber = std::numeric_limits<std::int32_t>::min() + 1000;
    faults_.SetClock(kSeconds - std::time(nullptr));
    EXPECT_TRUE(WaitForHeartbeats(server_.Count("HeartBeat?") + 2));
    EXPECT_THAT(std::stoll(panel_.Value("SELECT CheckTime FROM Cloud")),
                AllOf(Ge(kAsNumber), Lt(kAsNumber + 120)));
    ManagementClient client;
    client.SendLine("Nonsense");
    ASSERT_TRUE(agent_.WaitForLog("Invalid Message"));
    EXPECT_THAT(agent_.Log(), Contains(MatchesRegex("DEBUG: -214748[0-9]+:ClientWorker[.]cpp:.*")));
}

TEST_F(Clock, SessionsAndHeartbeatsContinueAfterClockIsSetForwardAndBack)
{
    ManagementClient client = LoggedIn();
    SetForward();
    // Sooner than a session that is only silent.
    EXPECT_TRUE(client.IsClosedByPeer(seconds(8)));
    ManagementClient silent = LoggedIn();
    ASSERT_TRUE(WaitForHeartbeats(1));
    const std::size_t heartbeats = server_.Count("HeartBeat?");
    faults_.SetClock(0);
    ManagementClient next = LoggedIn();
    EXPECT_EQ(next.Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=1");
    EXPECT_TRUE(silent.IsClosedByPeer(kRestarted));
    EXPECT_TRUE(WaitForHeartbeats(heartbeats + 2));
}

TEST_F(Clock, LogShowsNewTimeAfterClockIsSetForward)
{
    SetForward();
    ManagementClient client;
    client.SendLine("Nothing?");
    ASSERT_TRUE(agent_.WaitForLog("Invalid Message"));
    for (const std::string &line : agent_.Log())
        if (line.find("Invalid Message") != std::string::npos) {
            EXPECT_GE(std::stoll(line.substr(line.find(' ') + 1)), std::time(nullptr) + kHour - 60)
                << line;
        }
}

} // namespace
} // namespace nimbra::test
