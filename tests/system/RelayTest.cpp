// Sessions that the cloud server orders. For the agent they are like local sessions.

#include "simulator/cloud/CloudServer.h"
#include "support/Agent.h"
#include "support/Files.h"
#include "support/Matchers.h"
#include "support/TestPanel.h"
#include "support/TestSocket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace nimbra::test {

namespace {

using ::testing::Optional;

using simulator::CloudServer;
using simulator::Reply;

constexpr char kSource[] = "ServerManager.cpp";

/// The port where the cloud server connects management clients with the panel.
constexpr int kClientPort = 9520;

class Relay : public ::testing::Test
{
protected:
    Relay() { NameHost("127.0.0.1", "cloud.nimbra.example"); }

    /// Starts the agent, and a server that connects clients by sessions of `linkType`.
    void Start(int linkType = 2)
    {
        server_ = std::make_unique<CloudServer>(CloudServer::Ports(), linkType);
        agent_ = std::make_unique<Agent>();
    }
    /// Answers requests that start with `word` with `reply`, and others normally.
    void Answer(const std::string &word, const Reply &reply)
    {
        server_->SetAnswer([this, word, reply](const std::string &request) {
            return request.starts_with(word) ? reply : server_->GoodAnswer(request);
        });
    }
    void AnswerHandshake(const Reply &reply) { Answer("RelayDevice?", reply); }
    /// A remote management client, connected with the panel by the server.
    static ManagementClient RemoteClient() { return ManagementClient("127.0.0.1", kClientPort); }

    TestPanel panel_{{}, TestPanel::Cloud::Enabled};
    std::unique_ptr<CloudServer> server_;
    std::unique_ptr<Agent> agent_;
};

TEST_F(Relay, ServesRemoteClientAfterHandshake)
{
    Start();
    ManagementClient client = RemoteClient();
    EXPECT_EQ(client.Login("admin", "admin1234"), "LoginResponse?Result=0");
    EXPECT_EQ(client.Ask("GetDoorLock?Port=1"), "GetDoorLockResponse?Result=0&Status=0");
    EXPECT_EQ(server_->Count("RelayDevice?RelayType=0&RelayKey=1001"), 1U);
    // The address of the relay is logged as that of the client.
    EXPECT_TRUE(agent_->WaitForLog(", Addr: 127.0.0.1, Port: 9510"));
    EXPECT_TRUE(agent_->WaitForLog("Client Count: 1"));
    EXPECT_EQ(panel_.Calls().back(), AuditCall(15107));
}

TEST_F(Relay, ServesLinkTypeOneWithoutHandshake)
{
    Start(1);
    ManagementClient client = RemoteClient();
    EXPECT_EQ(client.Login("admin", "admin1234"), "LoginResponse?Result=0");
    EXPECT_EQ(server_->Count("RelayDevice?"), 0U);
}

TEST_F(Relay, ServesUnknownLinkTypeWithoutHandshake)
{
    Start(-1);
    ManagementClient client = RemoteClient();
    EXPECT_EQ(client.Login("admin", "admin1234"), "LoginResponse?Result=0");
}

TEST_F(Relay, SessionReadsBytesAfterHandshakeReply)
{
    Start();
    AnswerHandshake({.Text = "RelayDeviceResponse?Result=0\nHello?\nHello?\n"});
    ManagementClient client = RemoteClient();
    for (int i = 0; i < 2; ++i)
        EXPECT_THAT(client.ReadLine(), Optional(IsGreeting()));
}

/// An address at which the server orders a session. The relay logs in at once.
class RelayAddress : public Relay, public ::testing::WithParamInterface<const char *>
{};

TEST_P(RelayAddress, IsAuditedAsServerSentIt)
{
    const std::string address = GetParam();
    if (address.ends_with("-relay"))
        NameHost("127.0.0.1", address);
    Start();
    AnswerHandshake(
        {.Text = "RelayDeviceResponse?Result=0\nLogin?Username=admin&Password=admin1234\n"});
    server_->Queue({2, address, 9510, 77});
    EXPECT_TRUE(agent_->WaitForLog(", Addr: " + address + ", Port: 9510"));
    ASSERT_TRUE(WaitUntil([this] { return !panel_.Calls().empty(); }));
    panel::Call expected = AuditCall(15107);
    expected[2] = address;
    EXPECT_EQ(panel_.Calls().back(), expected);
    EXPECT_FALSE(std::filesystem::exists("/tmp/owned"));
}

/// A text that starts with a letter is a host name. Text after a blank is not part of a dotted
/// address, but it is audited.
INSTANTIATE_TEST_SUITE_P(Each, RelayAddress,
                         ::testing::Values("127.0.0.1", "localhost", "LocalHost", "A-relay",
                                           "Z-relay", "a-relay", "z-relay",
                                           "127.0.0.1 ;touch /tmp/owned",
                                           "127.0.0.1 $(touch /tmp/owned)", "127.0.0.1 'quoted'"));

TEST_F(Relay, SendsKeyZeroWhenOrderHasNone)
{
    Start();
    Answer("HeartBeat?",
           {.Text = "HeartBeatResponse?Result=0&LinkType=2&LinkAddr=127.0.0.1&LinkPort=9510\n"});
    EXPECT_TRUE(
        WaitUntil([this] { return server_->Count("RelayDevice?RelayType=0&RelayKey=0") > 0; }));
}

TEST_F(Relay, LogsUnknownHandshakeKeyAndServes)
{
    Start();
    AnswerHandshake({.Text = "relaydeviceresponse?result=0&Extra=1\n"});
    ManagementClient client = RemoteClient();
    EXPECT_EQ(client.Login("admin", "admin1234"), "LoginResponse?Result=0");
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "MakeSession", "Invalid Token: Extra"));
}

/// A reply to the handshake that opens no session, and the message that the agent logs.
struct Refusal
{
    const char *Name;
    Reply Answer;
    const char *Message;
};

void PrintTo(const Refusal &refusal, std::ostream *out)
{
    *out << refusal.Name;
}

class RelayRefusal : public Relay, public ::testing::WithParamInterface<Refusal>
{};

TEST_P(RelayRefusal, ClosesConnectionAndKeepsLink)
{
    Start();
    AnswerHandshake(GetParam().Answer);
    server_->Queue({2, "127.0.0.1", 9510, 77});
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "MakeSession", GetParam().Message));
    EXPECT_EQ(agent_->CountInLog("Client Count"), 0U);
    EXPECT_EQ(server_->Count("RelayDevice?RelayType=0&RelayKey=77"), 1U);
    EXPECT_TRUE(WaitUntil([this] { return agent_->Descriptors() == Agent::kDescriptorsAtRest; }));
    // The heartbeat with the order has succeeded, and others follow.
    const std::size_t heartbeats = server_->Count("HeartBeat?");
    EXPECT_TRUE(WaitUntil([&] { return server_->Count("HeartBeat?") > heartbeats + 1; }));
    EXPECT_EQ(agent_->CountInLog("Heartbeat fail"), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    Each, RelayRefusal,
    ::testing::Values(
        Refusal{"Refused", {.Text = "RelayDeviceResponse?Result=4\n"}, "Result Error: 4"},
        Refusal{"NoResult", {.Text = "RelayDeviceResponse\n"}, "Result Error: -1"},
        Refusal{"WrongWord", {.Text = "HeartBeatResponse?Result=0\n"}, "Invalid Command"},
        Refusal{"Garbage", {.Text = "\x80\xff\n"}, "Invalid Command"},
        Refusal{"Silent", {}, "RecvMessage fail"},
        Refusal{"ConnectionClosed", {.Text = "", .Close = true}, "RecvMessage fail"},
        Refusal{"Oversized", {.Text = std::string(2000, 'y') + "\n"}, "RecvMessage fail"}),
    [](const auto &test) { return std::string(test.param.Name); });

TEST_F(Relay, GivesUpConnectionAfter10Seconds)
{
    const Stopwatch watch;
    Start();
    server_->Queue({2, "127.0.0.1", 9599, 5});
    server_->Queue({1, "localhost", 9598, 5});
    EXPECT_TRUE(
        agent_->WaitForMessage(kSource, "OpenSocket", "connect fail 127.0.0.1:127.0.0.1:9599"));
    EXPECT_GT(watch.Seconds(), 9);
    // A name is resolved, and logged as the server sent it.
    EXPECT_TRUE(
        agent_->WaitForMessage(kSource, "OpenSocket", "connect fail localhost:127.0.0.1:9598"));
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "MakeSession", "OpenSocket fail", 2));
    ManagementClient client = RemoteClient();
    EXPECT_EQ(client.Login("admin", "admin1234"), "LoginResponse?Result=0");
    EXPECT_EQ(agent_->CountInLog("Heartbeat fail"), 0U);
}

TEST_F(Relay, UsesTextThatIsNoAddressUnchanged)
{
    NameHost("127.0.0.1", "9relay");
    Start();
    server_->Queue({1, "1.2.3.4.5", 9510, 0});
    // Only a text that starts with a letter is looked up, although this name exists.
    server_->Queue({1, "9relay", 9510, 0});
    // An empty value takes the next pair, as in every request.
    server_->Queue({1, "", 9510, 0});
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "OpenSocket",
                                       "connect fail 1.2.3.4.5:1.2.3.4.5:9510", 1, seconds(40)));
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "OpenSocket", "connect fail 9relay:9relay:9510", 1,
                                       seconds(40)));
    EXPECT_TRUE(agent_->WaitForMessage(
        kSource, "OpenSocket", "connect fail LinkPort=9510:LinkPort=9510:0", 1, seconds(40)));
    EXPECT_EQ(agent_->CountInLog("Client Count"), 0U);
}

TEST_F(Relay, ServesRemoteAndLocalClientsBesideHeartbeats)
{
    Start();
    std::vector<ManagementClient> clients;
    for (int i = 0; i < 2; ++i)
        clients.push_back(RemoteClient());
    for (int i = 0; i < 3; ++i)
        clients.emplace_back();
    for (ManagementClient &client : clients)
        EXPECT_EQ(client.Login("admin", "admin1234"), "LoginResponse?Result=0");
    EXPECT_TRUE(agent_->WaitForLog("Client Count: 5"));
    const std::size_t heartbeats = server_->Count("HeartBeat?");
    for (int round = 0; round < 4; ++round) {
        for (ManagementClient &client : clients)
            EXPECT_EQ(client.AskList("GetEventLogEx?Limit=40").size(), 41U);
        std::this_thread::sleep_for(seconds(2));
    }
    EXPECT_GE(server_->Count("HeartBeat?"), heartbeats + 2);
}

TEST_F(Relay, ServesRemoteClientWhileHeartbeatsFail)
{
    Start();
    ManagementClient client = RemoteClient();
    EXPECT_EQ(client.Login("admin", "admin1234"), "LoginResponse?Result=0");
    Answer("HeartBeat?", {.Text = "HeartBeatResponse?Result=3\n"});
    // Eleven failures include a new registration.
    for (int i = 0; i < 60 && agent_->CountInLog("Heartbeat fail") < 11; ++i) {
        ASSERT_EQ(client.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
        std::this_thread::sleep_for(seconds(1));
    }
    EXPECT_EQ(agent_->CountInLog("Heartbeat fail"), 11U);
    EXPECT_EQ(server_->Count("SetDeviceInfo?"), 2U);
    EXPECT_EQ(client.Ask("GetDoorLock?Port=1"), "GetDoorLockResponse?Result=0&Status=0");
}

TEST_F(Relay, EndsSilentRemoteSession)
{
    Start();
    ManagementClient client = RemoteClient();
    EXPECT_EQ(client.Login("admin", "admin1234"), "LoginResponse?Result=0");
    const Stopwatch watch;
    EXPECT_TRUE(client.IsClosedByPeer());
    EXPECT_GT(watch.Seconds(), 9);
    EXPECT_LT(watch.Seconds(), 18);
    EXPECT_TRUE(agent_->WaitForLog("Client Count: 0"));
}

TEST_F(Relay, ServesRemoteClientWhenLocalPortIsTaken)
{
    const TestSocket holder;
    ASSERT_TRUE(holder.Bind("0.0.0.0", 9000));
    ASSERT_TRUE(holder.Listen(1));
    server_ = std::make_unique<CloudServer>();
    Agent::Options options;
    options.WaitUntilServing = false;
    agent_ = std::make_unique<Agent>(options);
    EXPECT_TRUE(agent_->WaitForMessage("ClientManager.cpp", "OpenSocket", "bind fail"));
    {
        ManagementClient client = RemoteClient();
        EXPECT_EQ(client.Login("admin", "admin1234"), "LoginResponse?Result=0");
        EXPECT_TRUE(agent_->WaitForLog("Client Count: 1"));
    }
    EXPECT_TRUE(agent_->WaitForLog("Client Count: 0", seconds(40)));
}

} // namespace

} // namespace nimbra::test
