// Sessions that the cloud server orders: from the agent's side they are like any other.

#include "simulator/cloud/CloudServer.h"
#include "support/Agent.h"
#include "support/Files.h"
#include "support/TestPanel.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace nimbra::test {

namespace {

using simulator::CloudServer;
using simulator::Reply;

constexpr char kSource[] = "ServerManager.cpp";

/// Where the server of the tests joins management clients with the panel.
constexpr int kClientPort = 9520;

class Relay : public ::testing::Test
{
protected:
    Relay() { NameHost("127.0.0.1", "cloud.nimbra.example"); }

    /// Starts a server that joins clients by sessions of this type, and the agent.
    void Start(int linkType = 2)
    {
        server = std::make_unique<CloudServer>(CloudServer::Ports(), linkType);
        agent = std::make_unique<Agent>();
    }
    /// Has requests that begin with `word` answered with `reply`, and the others as ever.
    void Answer(const std::string &word, const Reply &reply)
    {
        server->SetAnswer([this, word, reply](const std::string &request) {
            return request.rfind(word, 0) == 0 ? reply : server->GoodAnswer(request);
        });
    }
    void AnswerHandshake(const Reply &reply) { Answer("RelayDevice?", reply); }
    /// A management client somewhere else, which is joined with the panel.
    static ManagementClient RemoteClient() { return ManagementClient("127.0.0.1", kClientPort); }

    TestPanel panel{{}, true};
    std::unique_ptr<CloudServer> server;
    std::unique_ptr<Agent> agent;
};

TEST_F(Relay, ServesARemoteClientAfterTheHandshake)
{
    Start();
    ManagementClient client = RemoteClient();
    EXPECT_EQ(client.Login("admin", "admin1234"), "LoginResponse?Result=0");
    EXPECT_EQ(client.Ask("GetDoorLock?Port=1"), "GetDoorLockResponse?Result=0&Status=0");
    EXPECT_EQ(server->Count("RelayDevice?RelayType=0&RelayKey=1001"), 1U);
    // The relay's address, which is not the server's own, stands for the client's.
    EXPECT_TRUE(agent->WaitForLog(", Addr: 127.0.0.1, Port: 9510"));
    EXPECT_TRUE(agent->WaitForLog("Client Count: 1"));
    EXPECT_EQ(panel.Calls().back(), AuditCall(15107));
}

TEST_F(Relay, ServesAtOnceWithoutAHandshakeForOtherLinkTypes)
{
    Start(1);
    ManagementClient client = RemoteClient();
    EXPECT_EQ(client.Login("admin", "admin1234"), "LoginResponse?Result=0");
    EXPECT_EQ(server->Count("RelayDevice?"), 0U);
}

TEST_F(Relay, TakesEveryLinkTypeBut0And2AsOneWithoutAHandshake)
{
    Start(-1);
    ManagementClient client = RemoteClient();
    EXPECT_EQ(client.Login("admin", "admin1234"), "LoginResponse?Result=0");
}

TEST_F(Relay, LeavesWhatFollowsTheHandshakesReplyToTheSession)
{
    Start();
    AnswerHandshake({"RelayDeviceResponse?Result=0\nHello?\nHello?\n", {}, false});
    ManagementClient client = RemoteClient();
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(client.ReadLine().value_or("(no line)").rfind("HelloResponse?Result=0&Key=", 0),
                  0U);
}

/// Has the agent open a session at `address`, in which the relay itself logs in at once.
class RelayAddress : public Relay, public ::testing::WithParamInterface<const char *>
{};

TEST_P(RelayAddress, IsTheAddressOfTheClientAsTheServerGaveIt)
{
    const std::string address = GetParam();
    Start();
    AnswerHandshake(
        {"RelayDeviceResponse?Result=0\nLogin?Username=admin&Password=admin1234\n", {}, false});
    server->Queue({2, address, 9510, 77});
    EXPECT_TRUE(agent->WaitForLog(", Addr: " + address + ", Port: 9510"));
    ASSERT_TRUE(WaitUntil([this] { return !panel.Calls().empty(); }));
    panel::Call expected = AuditCall(15107);
    expected[2] = address;
    EXPECT_EQ(panel.Calls().back(), expected);
    EXPECT_FALSE(std::filesystem::exists("/tmp/owned"));
}

/// What follows a blank is no part of a dotted address, but it is part of the text.
INSTANTIATE_TEST_SUITE_P(All, RelayAddress,
                         ::testing::Values("127.0.0.1", "localhost", "LocalHost",
                                           "127.0.0.1 ;touch /tmp/owned",
                                           "127.0.0.1 $(touch /tmp/owned)", "127.0.0.1 'quoted'"));

TEST_F(Relay, ShowsTheKeyZeroWhenItWasOrderedWithoutOne)
{
    Start();
    Answer("HeartBeat?",
           {"HeartBeatResponse?Result=0&LinkType=2&LinkAddr=127.0.0.1&LinkPort=9510\n", {}, false});
    EXPECT_TRUE(
        WaitUntil([this] { return server->Count("RelayDevice?RelayType=0&RelayKey=0") > 0; }));
}

TEST_F(Relay, LogsAnUnknownKeyOfTheHandshakeAndServes)
{
    Start();
    AnswerHandshake({"relaydeviceresponse?result=0&Extra=1\n", {}, false});
    ManagementClient client = RemoteClient();
    EXPECT_EQ(client.Login("admin", "admin1234"), "LoginResponse?Result=0");
    EXPECT_TRUE(agent->WaitForMessage(kSource, "MakeSession", "Invalid Token: Extra"));
}

/// A reply to the handshake that opens no session, and what the agent logs of it.
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

TEST_P(RelayRefusal, ClosesTheConnectionAndGoesOn)
{
    Start();
    AnswerHandshake(GetParam().Answer);
    server->Queue({2, "127.0.0.1", 9510, 77});
    EXPECT_TRUE(agent->WaitForMessage(kSource, "MakeSession", GetParam().Message));
    EXPECT_EQ(agent->CountInLog("Client Count"), 0U);
    EXPECT_EQ(server->Count("RelayDevice?RelayType=0&RelayKey=77"), 1U);
    EXPECT_TRUE(WaitUntil([this] { return agent->Descriptors() == Agent::kDescriptorsAtRest; }));
    // The heartbeat that gave the order has succeeded, and others follow.
    const std::size_t heartbeats = server->Count("HeartBeat?");
    EXPECT_TRUE(WaitUntil([&] { return server->Count("HeartBeat?") > heartbeats + 1; }));
    EXPECT_EQ(agent->CountInLog("Heartbeat fail"), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    All, RelayRefusal,
    ::testing::Values(
        Refusal{"Refused", {"RelayDeviceResponse?Result=4\n", {}, false}, "Result Error: 4"},
        Refusal{"NoResult", {"RelayDeviceResponse\n", {}, false}, "Result Error: -1"},
        Refusal{"WrongWord", {"HeartBeatResponse?Result=0\n", {}, false}, "Invalid Command"},
        Refusal{"Garbage", {"\x80\xff\n", {}, false}, "Invalid Command"},
        Refusal{"Silent", {}, "RecvMessage fail"},
        Refusal{"ClosingEarly", {"", {}, true}, "RecvMessage fail"},
        Refusal{"Oversized", {std::string(2000, 'y') + "\n", {}, false}, "RecvMessage fail"}),
    [](const auto &test) { return std::string(test.param.Name); });

TEST_F(Relay, GivesUpAConnectionThatDoesNotComeAboutInTenSeconds)
{
    Start();
    server->Queue({2, "127.0.0.1", 9599, 5});
    server->Queue({1, "localhost", 9598, 5});
    EXPECT_TRUE(
        agent->WaitForMessage(kSource, "OpenSocket", "connect fail 127.0.0.1:127.0.0.1:9599"));
    // A name is resolved, and shown as it was given.
    EXPECT_TRUE(
        agent->WaitForMessage(kSource, "OpenSocket", "connect fail localhost:127.0.0.1:9598"));
    EXPECT_TRUE(agent->WaitForMessage(kSource, "MakeSession", "OpenSocket fail", 2));
    ManagementClient client = RemoteClient();
    EXPECT_EQ(client.Login("admin", "admin1234"), "LoginResponse?Result=0");
    EXPECT_EQ(agent->CountInLog("Heartbeat fail"), 0U);
}

TEST_F(Relay, UsesATextThatIsNoAddressAsItStands)
{
    NameHost("127.0.0.1", "9relay");
    Start();
    server->Queue({1, "1.2.3.4.5", 9510, 0});
    // Only what begins with a letter is looked up, though this name could be found.
    server->Queue({1, "9relay", 9510, 0});
    // An empty value runs on into the next pair, here as everywhere.
    server->Queue({1, "", 9510, 0});
    EXPECT_TRUE(agent->WaitForMessage(kSource, "OpenSocket",
                                      "connect fail 1.2.3.4.5:1.2.3.4.5:9510", 1, seconds(40)));
    EXPECT_TRUE(agent->WaitForMessage(kSource, "OpenSocket", "connect fail 9relay:9relay:9510", 1,
                                      seconds(40)));
    EXPECT_TRUE(agent->WaitForMessage(
        kSource, "OpenSocket", "connect fail LinkPort=9510:LinkPort=9510:0", 1, seconds(40)));
    EXPECT_EQ(agent->CountInLog("Client Count"), 0U);
}

TEST_F(Relay, ServesRemoteAndLocalClientsTogetherWhileTheLinkGoesOn)
{
    Start();
    std::vector<ManagementClient> clients;
    for (int i = 0; i < 2; ++i)
        clients.push_back(RemoteClient());
    for (int i = 0; i < 3; ++i)
        clients.emplace_back();
    for (ManagementClient &client : clients)
        EXPECT_EQ(client.Login("admin", "admin1234"), "LoginResponse?Result=0");
    EXPECT_TRUE(agent->WaitForLog("Client Count: 5"));
    const std::size_t heartbeats = server->Count("HeartBeat?");
    for (int round = 0; round < 4; ++round) {
        for (ManagementClient &client : clients)
            EXPECT_EQ(client.AskList("GetEventLogEx?Limit=40").size(), 41U);
        std::this_thread::sleep_for(seconds(2));
    }
    EXPECT_GE(server->Count("HeartBeat?"), heartbeats + 2);
}

TEST_F(Relay, GoesOnWhileHeartbeatsFail)
{
    Start();
    ManagementClient client = RemoteClient();
    EXPECT_EQ(client.Login("admin", "admin1234"), "LoginResponse?Result=0");
    Answer("HeartBeat?", {"HeartBeatResponse?Result=3\n", {}, false});
    // Eleven, so that the panel has registered again in between.
    for (int i = 0; i < 60 && agent->CountInLog("Heartbeat fail") < 11; ++i) {
        ASSERT_EQ(client.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
        std::this_thread::sleep_for(seconds(1));
    }
    EXPECT_EQ(agent->CountInLog("Heartbeat fail"), 11U);
    EXPECT_EQ(server->Count("SetDeviceInfo?"), 2U);
    EXPECT_EQ(client.Ask("GetDoorLock?Port=1"), "GetDoorLockResponse?Result=0&Status=0");
}

TEST_F(Relay, EndsARemoteSessionLikeALocalOne)
{
    Start();
    ManagementClient client = RemoteClient();
    EXPECT_EQ(client.Login("admin", "admin1234"), "LoginResponse?Result=0");
    const Stopwatch watch;
    EXPECT_TRUE(client.IsClosedByPeer());
    EXPECT_GT(watch.Seconds(), 9);
    EXPECT_LT(watch.Seconds(), 18);
    EXPECT_TRUE(agent->WaitForLog("Client Count: 0"));
}

TEST_F(Relay, IsServedAndReapedWhenTheLocalPortIsTaken)
{
    const Descriptor taken(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(9000);
    ASSERT_EQ(bind(taken.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(taken.Get(), 1), 0);
    server = std::make_unique<CloudServer>();
    Agent::Options options;
    options.WaitUntilServing = false;
    agent = std::make_unique<Agent>(options);
    EXPECT_TRUE(agent->WaitForMessage("ClientManager.cpp", "OpenSocket", "bind fail"));
    {
        ManagementClient client = RemoteClient();
        EXPECT_EQ(client.Login("admin", "admin1234"), "LoginResponse?Result=0");
        EXPECT_TRUE(agent->WaitForLog("Client Count: 1"));
    }
    EXPECT_TRUE(agent->WaitForLog("Client Count: 0", seconds(40)));
}

} // namespace

} // namespace nimbra::test
