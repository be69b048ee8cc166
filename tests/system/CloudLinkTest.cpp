// Registration and heartbeat: the agent and a cloud server that behaves as each test wants.

#include "simulator/cloud/CloudServer.h"
#include "support/Agent.h"
#include "support/Files.h"
#include "support/TestPanel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <ctime>
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
using simulator::Request;

constexpr char kHost[] = "cloud.nimbra.example";
constexpr char kSource[] = "ServerManager.cpp";

/// The device identity of the sample panel's MAC address.
constexpr char kDeviceId[] = "7EEA0B498F9CC0F7FC6B3EFF0AAB3FA973A5E491";

std::string Registration(const std::string &stunAddress, const std::string &stunPort)
{
    return std::string("SetDeviceInfo?DeviceId=") + kDeviceId +
           "&MacAddr=00:1A:2B:3C:4D:5E&ModelName=Dogwood 64&PrivateAddr=192.168.77.10"
           "&PrivatePort=9000&StunAddr=" +
           stunAddress + "&StunPort=" + stunPort;
}

bool IsRegistration(const std::string &request)
{
    return request.rfind("SetDeviceInfo?", 0) == 0;
}

/// The first requests: registrations as they came, and for each heartbeat that word.
std::vector<std::string> Course(const CloudServer &server, std::size_t count)
{
    std::vector<std::string> lines;
    for (const Request &request : server.Requests())
        lines.push_back(IsRegistration(request.Line) ? request.Line : "heartbeat");
    lines.resize(count);
    return lines;
}

/// The seconds between each request of one kind and the next.
std::vector<double> Gaps(const CloudServer &server, const std::string &word)
{
    std::vector<double> gaps;
    const Request *last = nullptr;
    const std::vector<Request> requests = server.Requests();
    for (const Request &request : requests) {
        if (request.Line.rfind(word, 0) != 0)
            continue;
        if (last != nullptr)
            gaps.push_back(std::chrono::duration<double>(request.Time - last->Time).count());
        last = &request;
    }
    return gaps;
}

/// Main, accept, reaper and discovery.
constexpr std::size_t kThreadsWithoutLink = 4;

class CloudLink : public ::testing::Test
{
protected:
    CloudLink() { NameHost("127.0.0.1", kHost); }

    void StartServer() { server = std::make_unique<CloudServer>(); }
    void StartAgent() { agent = std::make_unique<Agent>(); }
    [[nodiscard]] bool WaitForRequests(const std::string &word, std::size_t count,
                                       milliseconds limit = seconds(60))
    {
        return WaitUntil(
            [&] {
                static_cast<void>(agent->Log());
                return server->Count(word) >= count;
            },
            limit);
    }
    /// The thread of the link ends, and not only because the others have yet to start.
    void ExpectNoLink() const
    {
        std::this_thread::sleep_for(seconds(3));
        EXPECT_TRUE(WaitUntil([this] { return agent->Threads() == kThreadsWithoutLink; }));
        EXPECT_TRUE(server->Requests().empty());
    }
    [[nodiscard]] long CloudTime(const std::string &column) const
    {
        return std::stol(panel.Value("SELECT IFNULL(" + column + ", 0) FROM Cloud"));
    }

    TestPanel panel{{}, true};
    /// Counted by the answers that differ from time to time; here, and not in the tests, since the
    /// server may still be answering when a test's own variables are gone.
    std::atomic<unsigned> answered = 0;
    std::unique_ptr<CloudServer> server;
    std::unique_ptr<Agent> agent;
};

TEST_F(CloudLink, RegistersThePanelAndThenSendsHeartbeats)
{
    panel.Run("UPDATE Cloud SET StartTime=0, CheckTime=0");
    const std::time_t before = std::time(nullptr);
    StartServer();
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 1));
    EXPECT_EQ(server->Requests()[0].Line, Registration("127.0.0.1", "0"));
    EXPECT_EQ(server->Requests()[1].Line, "HeartBeat?DeviceNo=7");
    EXPECT_LT(server->Requests()[1].Time - server->Requests()[0].Time, milliseconds(2500));
    EXPECT_TRUE(WaitUntil([&] { return CloudTime("CheckTime") >= before; }));
    EXPECT_GE(CloudTime("StartTime"), before);
    EXPECT_LE(CloudTime("StartTime"), std::time(nullptr));
}

TEST_F(CloudLink, SendsAHeartbeatEveryThreeSeconds)
{
    StartServer();
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 6));
    const std::vector<double> gaps = Gaps(*server, "HeartBeat?");
    double sum = 0;
    for (const double gap : gaps) {
        // At least 3 on the clock of whole seconds, seen every second.
        EXPECT_GT(gap, 2);
        EXPECT_LT(gap, 5);
        sum += gap;
    }
    EXPECT_NEAR(sum / static_cast<double>(gaps.size()), 3, 1);
}

TEST_F(CloudLink, WritesTheCheckTimeOnceAMinute)
{
    StartServer();
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 2));
    const Stopwatch watch;
    panel.Run("UPDATE Cloud SET CheckTime=0");
    ASSERT_TRUE(WaitUntil([&] { return CloudTime("CheckTime") != 0; }, seconds(75)));
    EXPECT_GT(watch.Seconds(), 50);
    EXPECT_LT(watch.Seconds(), 68);
}

TEST_F(CloudLink, WritesNoTimesBeforeItIsRegistered)
{
    panel.Run("UPDATE Cloud SET StartTime=0, CheckTime=0");
    StartServer();
    server->SetAnswer([](const std::string &) {
        return Reply{"SetDeviceInfoResponse?Result=5\n", {}, false};
    });
    StartAgent();
    EXPECT_TRUE(agent->WaitForMessage(kSource, "SetDeviceInfo", "Result Error: 5"));
    EXPECT_TRUE(agent->WaitForMessage(kSource, "Process", "SetDeviceInfo fail"));
    EXPECT_EQ(CloudTime("StartTime"), 0);
    EXPECT_EQ(CloudTime("CheckTime"), 0);
}

TEST_F(CloudLink, TriesToRegisterEvery30SecondsAndKeepsANumberGivenWithARefusal)
{
    StartServer();
    server->SetAnswer([&](const std::string &request) {
        if (!IsRegistration(request))
            return server->GoodAnswer(request);
        return Reply{++answered == 1 ? "SetDeviceInfoResponse?DeviceNo=5\n"
                                     : "SetDeviceInfoResponse?Result=0\n",
                     {},
                     false};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 1));
    EXPECT_TRUE(agent->WaitForMessage(kSource, "SetDeviceInfo", "Result Error: -1"));
    EXPECT_EQ(server->Requests()[2].Line, "HeartBeat?DeviceNo=5");
    const std::vector<double> gaps = Gaps(*server, "SetDeviceInfo?");
    ASSERT_EQ(gaps.size(), 1U);
    EXPECT_GT(gaps[0], 28.5);
    EXPECT_LT(gaps[0], 34);
}

TEST_F(CloudLink, RegistersAgainAfterTenHeartbeatsInARowHaveFailed)
{
    StartServer();
    server->SetAnswer([&](const std::string &request) {
        return IsRegistration(request) ? server->GoodAnswer(request)
                                       : Reply{"HeartBeatResponse?Result=3\n", {}, false};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 1));
    panel.Run("UPDATE Cloud SET StartTime=0");
    ASSERT_TRUE(WaitForRequests("SetDeviceInfo?", 2));
    // The link goes on at once after it, so the requests are counted up to there.
    const std::vector<Request> requests = server->Requests();
    ASSERT_GT(requests.size(), 11U);
    for (std::size_t i = 1; i <= 10; ++i)
        EXPECT_EQ(requests[i].Line, "HeartBeat?DeviceNo=7");
    EXPECT_EQ(requests[11].Line, Registration("127.0.0.1", "0"));
    EXPECT_LT(requests[11].Time - requests[10].Time, seconds(8));
    EXPECT_TRUE(WaitUntil([this] { return CloudTime("StartTime") != 0; }));
    EXPECT_GE(agent->CountMessages(kSource, "Process", "Heartbeat fail"), 10U);
    EXPECT_GE(agent->CountMessages(kSource, "HeartBeat", "Result Error: 3"), 10U);
}

TEST_F(CloudLink, RegistersAgainAfterTenHeartbeatsInARowThatAreNeverAnswered)
{
    StartServer();
    server->SetAnswer([&](const std::string &request) {
        return IsRegistration(request) ? server->GoodAnswer(request) : Reply{};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("SetDeviceInfo?", 2, seconds(120)));
    const std::vector<Request> requests = server->Requests();
    ASSERT_GT(requests.size(), 11U);
    for (std::size_t i = 1; i <= 10; ++i)
        EXPECT_EQ(requests[i].Line, "HeartBeat?DeviceNo=7");
    EXPECT_EQ(requests[11].Line, Registration("127.0.0.1", "0"));
    // Each takes its five seconds.
    EXPECT_GE(requests[11].Time - requests[1].Time, seconds(40));
    EXPECT_EQ(agent->CountMessages(kSource, "HeartBeat", "RecvMessage fail"), 10U);
    EXPECT_EQ(agent->CountMessages(kSource, "Process", "Heartbeat fail"), 10U);
}

TEST_F(CloudLink, CountsOnlyFailuresInARowAndWritesTheCheckTimeOfASuccess)
{
    panel.Run("UPDATE Cloud SET CheckTime=0");
    StartServer();
    server->SetAnswer([&](const std::string &request) {
        if (IsRegistration(request) || ++answered % 10 == 0)
            return server->GoodAnswer(request);
        return Reply{"HeartBeatResponse?Result=3\n", {}, false};
    });
    StartAgent();
    EXPECT_TRUE(agent->WaitForMessage(kSource, "Process", "Heartbeat fail", 5, seconds(60)));
    EXPECT_EQ(CloudTime("CheckTime"), 0);
    EXPECT_TRUE(agent->WaitForMessage(kSource, "Process", "Heartbeat fail", 11, seconds(60)));
    EXPECT_EQ(server->Count("SetDeviceInfo?"), 1U);
    EXPECT_NE(CloudTime("CheckTime"), 0);
}

TEST_F(CloudLink, WaitsFiveSecondsForAServerThatNeverAnswers)
{
    StartServer();
    server->SetAnswer([&](const std::string &request) {
        return IsRegistration(request) ? server->GoodAnswer(request) : Reply{};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 4));
    EXPECT_TRUE(agent->WaitForMessage(kSource, "HeartBeat", "RecvMessage fail", 3));
    for (const double gap : Gaps(*server, "HeartBeat?")) {
        EXPECT_GT(gap, 4);
        EXPECT_LT(gap, 9);
    }
}

/// One way to answer a heartbeat and what the agent logs of it.
struct Manner
{
    const char *Name;
    Reply Answer;
    const char *Message; ///< of HeartBeat; empty when the heartbeat succeeds
};

void PrintTo(const Manner &manner, std::ostream *out)
{
    *out << manner.Name;
}

class ServerManners : public CloudLink, public ::testing::WithParamInterface<Manner>
{};

TEST_P(ServerManners, AreAnsweredWithTheRightMessage)
{
    const Manner &manner = GetParam();
    StartServer();
    server->SetAnswer([&](const std::string &request) {
        return IsRegistration(request) ? server->GoodAnswer(request) : manner.Answer;
    });
    StartAgent();
    if (*manner.Message == '\0') {
        ASSERT_TRUE(WaitForRequests("HeartBeat?", 3));
        EXPECT_EQ(agent->CountInLog("Heartbeat fail"), 0U);
    } else {
        EXPECT_TRUE(agent->WaitForMessage(kSource, "HeartBeat", manner.Message));
        EXPECT_TRUE(agent->WaitForMessage(kSource, "Process", "Heartbeat fail"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, ServerManners,
    ::testing::Values(
        Manner{"Late", {"HeartBeatResponse?Result=0\n", seconds(3), false}, ""},
        Manner{"TooLate", {"HeartBeatResponse?Result=0\n", seconds(7), false}, "RecvMessage fail"},
        Manner{"ClosingEarly", {"", {}, true}, "RecvMessage fail"},
        Manner{"HalfALine", {"HeartBeatResponse?Res", {}, true}, "RecvMessage fail"},
        Manner{"Garbage", {"\x01\xff&&==?=&\n", {}, false}, "Invalid Command"},
        Manner{"EmptyLine", {"\n", {}, false}, "Invalid Command"},
        Manner{"Oversized", {std::string(5000, 'x') + "\n", {}, false}, "RecvMessage fail"},
        Manner{"LongestLine",
               {"HeartBeatResponse?Result=0&LinkType=0&LinkAddr=" + std::string(975, 'a') + "\n",
                {},
                false},
               ""},
        Manner{"WrongWord", {"SetDeviceInfoResponse?Result=0\n", {}, false}, "Invalid Command"},
        Manner{"WordWithTail", {"HeartBeatResponses?Result=0\n", {}, false}, "Invalid Command"},
        Manner{"NoResult", {"HeartBeatResponse?DeviceNo=7\n", {}, false}, "Result Error: -1"},
        Manner{"NoKeys", {"HeartBeatResponse\n", {}, false}, "Result Error: -1"},
        Manner{"BadResult", {"HeartBeatResponse?Result=9\n", {}, false}, "Result Error: 9"},
        Manner{"LastResultCounts", {"HeartBeatResponse?Result=9&Result=0\n", {}, false}, ""},
        Manner{"AnyCase", {"heartbeatresponse?result=0\n", {}, false}, ""},
        Manner{"MoreLines", {"HeartBeatResponse?Result=0\nand more\n", {}, false}, ""}),
    [](const auto &test) { return std::string(test.param.Name); });

class RegistrationManners : public CloudLink, public ::testing::WithParamInterface<Manner>
{};

TEST_P(RegistrationManners, AreRefusedWithTheRightMessage)
{
    StartServer();
    server->SetAnswer([](const std::string &) { return GetParam().Answer; });
    StartAgent();
    EXPECT_TRUE(agent->WaitForMessage(kSource, "SetDeviceInfo", GetParam().Message));
    EXPECT_TRUE(agent->WaitForMessage(kSource, "Process", "SetDeviceInfo fail"));
    std::this_thread::sleep_for(seconds(2));
    EXPECT_EQ(server->Requests().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    All, RegistrationManners,
    ::testing::Values(
        Manner{"ClosingEarly", {"", {}, true}, "RecvMessage fail"},
        Manner{"WrongWord", {"HeartBeatResponse?Result=0\n", {}, false}, "Invalid Command"},
        Manner{"NoResult", {"SetDeviceInfoResponse?DeviceNo=7\n", {}, false}, "Result Error: -1"},
        Manner{"BadResult", {"SetDeviceInfoResponse?Result=9\n", {}, false}, "Result Error: 9"}),
    [](const auto &test) { return std::string(test.param.Name); });

TEST_F(CloudLink, LogsKeysThatItDoesNotKnowAndGoesOn)
{
    StartServer();
    server->SetAnswer([&](const std::string &request) {
        Reply reply = server->GoodAnswer(request);
        reply.Text.insert(reply.Text.size() - 1, "&Colour=blue");
        return reply;
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 2));
    EXPECT_TRUE(agent->WaitForMessage(kSource, "SetDeviceInfo", "Invalid Token: Colour"));
    EXPECT_TRUE(agent->WaitForMessage(kSource, "HeartBeat", "Invalid Token: Colour"));
    EXPECT_EQ(agent->CountInLog("fail"), 0U);
}

TEST_F(CloudLink, KeepsItsNumberWhateverAHeartbeatReplySays)
{
    StartServer();
    server->SetAnswer([&](const std::string &request) {
        return IsRegistration(request)
                   ? server->GoodAnswer(request)
                   : Reply{"HeartBeatResponse?Result=0&DeviceNo=99\n", {}, false};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?DeviceNo=7", 3));
    EXPECT_EQ(server->Count("HeartBeat?DeviceNo=99"), 0U);
}

TEST_F(CloudLink, TakesItsNumberFromEveryReplyToARegistration)
{
    StartServer();
    server->SetAnswer([&](const std::string &request) {
        if (!IsRegistration(request))
            return Reply{
                "HeartBeatResponse?Result=0&LinkAddr=203.0.113.5&LinkPort=4000\n", {}, false};
        return Reply{++answered == 1 ? "SetDeviceInfoResponse?Result=0\n"
                                     : "SetDeviceInfoResponse?Result=0&DeviceNo=8\n",
                     {},
                     false};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?DeviceNo=8", 1));
    EXPECT_EQ(server->Requests()[1].Line, "HeartBeat?DeviceNo=0");
    EXPECT_EQ(answered, 2U);
}

TEST_F(CloudLink, LeavesTheAddressOfAnOrderedSessionOutOfItsPublicPort)
{
    StartServer();
    static constexpr std::array kReplies = {"LinkType=0&LinkAddr=203.0.113.1&LinkPort=4000",
                                            "LinkType=1&LinkAddr=127.0.0.1&LinkPort=9510",
                                            "LinkType=0&LinkAddr=203.0.113.2&LinkPort=4000"};
    server->SetAnswer([&](const std::string &request) {
        if (IsRegistration(request))
            return server->GoodAnswer(request);
        const std::size_t i = std::min<std::size_t>(answered++, kReplies.size() - 1);
        return Reply{std::string("HeartBeatResponse?Result=0&") + kReplies[i] + "\n", {}, false};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", kReplies.size() + 1));
    EXPECT_EQ(
        Course(*server, 6),
        (std::vector<std::string>{Registration("127.0.0.1", "0"), "heartbeat", "heartbeat",
                                  "heartbeat", Registration("203.0.113.2", "4000"), "heartbeat"}));
}

TEST_F(CloudLink, ReportsAPublicPortWhenTwoRepliesAgreeAndWithdrawsItWhenItChanges)
{
    StartServer();
    static constexpr std::array kPorts = {"4000", "4000", "4000", "4001", "4002"};
    server->SetAnswer([&](const std::string &request) {
        if (IsRegistration(request))
            return server->GoodAnswer(request);
        const std::size_t i = std::min<std::size_t>(answered++, kPorts.size() - 1);
        return Reply{"HeartBeatResponse?Result=0&LinkType=0&LinkAddr=203.0.113." +
                         std::to_string(i) + "&LinkPort=" + kPorts[i] + "\n",
                     {},
                     false};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 1));
    // A report is no registration: it writes no time, and tells what was true at the start.
    panel.Run("UPDATE Cloud SET StartTime=0, DevicePort=9001");
    TestPanel::Run(panel.Paths().NetworkDatabase, "UPDATE Network SET IPAddress='192.168.77.11'");
    // One more heartbeat than replies, so that the last of them has had its effect.
    ASSERT_TRUE(WaitForRequests("HeartBeat?", kPorts.size() + 1));
    EXPECT_EQ(Course(*server, 8), (std::vector<std::string>{
                                      Registration("127.0.0.1", "0"), "heartbeat", "heartbeat",
                                      Registration("203.0.113.1", "4000"), "heartbeat", "heartbeat",
                                      Registration("203.0.113.3", "0"), "heartbeat"}));
    EXPECT_EQ(CloudTime("StartTime"), 0);
}

TEST_F(CloudLink, TakesAReplyWithoutALinkTypeAsOneThatSeesNoAddress)
{
    StartServer();
    server->SetAnswer([&](const std::string &request) {
        if (IsRegistration(request))
            return server->GoodAnswer(request);
        // The address of the third reply is gone when its change of port is reported.
        return Reply{++answered < 3
                         ? "HeartBeatResponse?Result=0&LinkAddr=203.0.113.9&LinkPort=4000\n"
                         : "HeartBeatResponse?Result=0&DeviceNo=7\n",
                     {},
                     false};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("SetDeviceInfo?", 3));
    std::vector<std::string> registrations;
    for (const Request &request : server->Requests())
        if (IsRegistration(request.Line))
            registrations.push_back(request.Line);
    EXPECT_EQ(registrations[1], Registration("203.0.113.9", "4000"));
    EXPECT_EQ(registrations[2], Registration("", "0"));
}

TEST_F(CloudLink, RemembersThePublicPortWhenItRegistersAgain)
{
    StartServer();
    server->SetAnswer([&](const std::string &request) {
        const bool isFailing = ++answered > 2 && answered <= 13;
        if (IsRegistration(request)) {
            --answered;
            return server->GoodAnswer(request);
        }
        return Reply{isFailing ? "HeartBeatResponse?Result=1\n"
                               : "HeartBeatResponse?Result=0&LinkAddr=203.0.113.5&LinkPort=4000\n",
                     {},
                     false};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 16, seconds(90)));
    std::vector<std::string> registrations;
    for (const Request &request : server->Requests())
        if (IsRegistration(request.Line))
            registrations.push_back(request.Line);
    // The port is reported once, and then again only by the registration after ten failures; the
    // eleventh is the first of the next ten.
    EXPECT_EQ(registrations, (std::vector<std::string>{Registration("127.0.0.1", "0"),
                                                       Registration("203.0.113.5", "4000"),
                                                       Registration("203.0.113.5", "4000")}));
}

TEST_F(CloudLink, CutsAnAddressAt31Bytes)
{
    StartServer();
    server->SetAnswer([&](const std::string &request) {
        return IsRegistration(request)
                   ? server->GoodAnswer(request)
                   : Reply{"HeartBeatResponse?Result=0&LinkAddr=" + std::string(40, 'a') +
                               "&LinkPort=4000\n",
                           {},
                           false};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("SetDeviceInfo?", 2));
    const std::vector<Request> requests = server->Requests();
    EXPECT_TRUE(std::any_of(requests.begin(), requests.end(), [](const Request &request) {
        return request.Line == Registration(std::string(31, 'a'), "4000");
    }));
}

TEST_F(CloudLink, GoesOnWhenItsTimesCannotBeWritten)
{
    StartServer();
    server->SetAnswer([&](const std::string &request) {
        if (IsRegistration(request))
            panel.Run("DROP TABLE IF EXISTS Cloud");
        return server->GoodAnswer(request);
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 3));
    EXPECT_TRUE(agent->WaitForMessage("ConfigManager.cpp", "SetCommTime", "sqlite3_exec fail", 2));
    EXPECT_EQ(agent->CountInLog("Heartbeat fail"), 0U);
}

TEST_F(CloudLink, GoesOnWhenTheReportOfAPortFails)
{
    StartServer();
    server->SetAnswer([&](const std::string &request) {
        if (IsRegistration(request) && ++answered > 1)
            return Reply{"SetDeviceInfoResponse?Result=1\n", {}, false};
        return server->GoodAnswer(request);
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 5));
    EXPECT_EQ(answered, 2U);
    EXPECT_EQ(agent->CountInLog("Process(): "), 0U);
}

TEST_F(CloudLink, NeverConnectsWhenItIsDisabled)
{
    panel.Run("UPDATE Cloud SET Enabled=0");
    StartServer();
    StartAgent();
    ExpectNoLink();
}

TEST_F(CloudLink, NeverConnectsForAPanelOfUnknownModel)
{
    TestPanel::Run(panel.Paths().NetworkDatabase, "UPDATE Network SET Model=5");
    StartServer();
    StartAgent();
    ExpectNoLink();
}

TEST_F(CloudLink, FindsAServerThatAppearsLater)
{
    const Stopwatch watch;
    StartAgent();
    EXPECT_TRUE(agent->WaitForMessage(kSource, "OpenSocket",
                                      std::string("connect fail ") + kHost + ":127.0.0.1:9500"));
    // After its first second it tries for ten, which are those of a clock of whole seconds.
    EXPECT_GE(watch.Seconds(), 10);
    EXPECT_LT(watch.Seconds(), 16);
    EXPECT_TRUE(agent->WaitForMessage(kSource, "SetDeviceInfo", "OpenSocket fail"));
    EXPECT_TRUE(agent->WaitForMessage(kSource, "Process", "SetDeviceInfo fail"));
    EXPECT_TRUE(WaitUntil([this] { return agent->Descriptors() == Agent::kDescriptorsAtRest; }));
    StartServer();
    EXPECT_TRUE(WaitForRequests("HeartBeat?", 1));
}

TEST_F(CloudLink, FindsAServerThatAppearsInTheMiddleOfAnAttempt)
{
    StartAgent();
    std::this_thread::sleep_for(seconds(5));
    StartServer();
    EXPECT_TRUE(WaitForRequests("HeartBeat?", 1));
    EXPECT_EQ(agent->CountInLog("fail"), 0U);
}

/// A host that lets nobody in and tells nobody so: the queue of its listener is full.
class SilentHost
{
public:
    SilentHost()
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(9500);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const auto *where = reinterpret_cast<const sockaddr *>(&address);
        EXPECT_EQ(bind(listener_.Get(), where, sizeof address), 0);
        EXPECT_EQ(listen(listener_.Get(), 0), 0);
        EXPECT_EQ(connect(waiting_.Get(), where, sizeof address), 0);
    }

private:
    Descriptor listener_{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    Descriptor waiting_{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

TEST_F(CloudLink, GivesAHostThatStaysSilentUpAfterTenSeconds)
{
    const SilentHost host;
    const Stopwatch watch;
    StartAgent();
    EXPECT_TRUE(agent->WaitForMessage(kSource, "OpenSocket",
                                      std::string("connect fail ") + kHost + ":127.0.0.1:9500", 1,
                                      seconds(60)));
    EXPECT_GE(watch.Seconds(), 10);
    EXPECT_LT(watch.Seconds(), 16);
    EXPECT_TRUE(agent->WaitForMessage(kSource, "SetDeviceInfo", "OpenSocket fail"));
    EXPECT_TRUE(agent->WaitForMessage(kSource, "Process", "SetDeviceInfo fail"));
    EXPECT_TRUE(WaitUntil([this] { return agent->Descriptors() == Agent::kDescriptorsAtRest; }));
}

TEST_F(CloudLink, ComesBackToAServerThatVanished)
{
    StartServer();
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 2));
    server.reset();
    // The report of a port may come before the heartbeat, and take its ten seconds too.
    EXPECT_TRUE(agent->WaitForMessage(kSource, "HeartBeat", "OpenSocket fail", 1, seconds(60)));
    EXPECT_TRUE(agent->WaitForMessage(kSource, "Process", "Heartbeat fail"));
    StartServer();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 2));
    // One failure is no reason to register again: what may come is the report of a port.
    EXPECT_EQ(server->Requests()[0].Line, "HeartBeat?DeviceNo=7");
}

TEST_F(CloudLink, LeavesNoConnectionOpenBetweenExchanges)
{
    StartServer();
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 2));
    // It may be taken in the middle of an exchange; one that each exchange leaves makes it four
    // more.
    const std::size_t descriptors = agent->Descriptors();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 6));
    EXPECT_TRUE(WaitUntil([&] { return agent->Descriptors() <= descriptors; }));
}

/// Where the agent has got to with its link when it is told to end.
class EndOfLink : public CloudLink
{
protected:
    void ExpectQuickEnd()
    {
        const Stopwatch watch;
        EXPECT_EQ(agent->End(), 0);
        // A second as a rule; a sanitizer on a busy machine takes its time at the end.
        EXPECT_LT(watch.Seconds(), 9);
    }
};

TEST_F(EndOfLink, IsQuickWhileTheNameIsLookedUp)
{
    WriteFile("/etc/hosts", "127.0.0.1 localhost\n");
    StartAgent();
    std::this_thread::sleep_for(seconds(2));
    ExpectQuickEnd();
}

TEST_F(EndOfLink, IsQuickWhileAnAddressDoesNotAnswer)
{
    // No host of the segment has this address.
    WriteFile("/etc/hosts", "192.168.77.99 cloud.nimbra.example\n");
    StartAgent();
    std::this_thread::sleep_for(seconds(3));
    EXPECT_EQ(agent->CountInLog("fail"), 0U);
    ExpectQuickEnd();
}

TEST_F(EndOfLink, IsQuickWhileTheServerOwesAReply)
{
    StartServer();
    server->SetAnswer([](const std::string &) { return Reply{}; });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("SetDeviceInfo?", 1));
    ExpectQuickEnd();
}

TEST_F(EndOfLink, IsQuickBetweenTwoHeartbeats)
{
    StartServer();
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 1));
    ExpectQuickEnd();
}

} // namespace

} // namespace nimbra::test
