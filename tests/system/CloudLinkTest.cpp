// Registration and heartbeats of the cloud link, with a cloud server that each test configures.

#include "simulator/cloud/CloudServer.h"
#include "support/Agent.h"
#include "support/CloudRequests.h"
#include "support/Files.h"
#include "support/Sanitized.h"
#include "support/TestPanel.h"
#include "support/TestSocket.h"

#include <gmock/gmock.h>
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

namespace nimbra::test {

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;

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
    return request.starts_with("SetDeviceInfo?");
}

/// The first `count` requests: registrations as they were received, "heartbeat" for each heartbeat.
std::vector<std::string> FirstRequests(const CloudServer &server, std::size_t count)
{
    std::vector<std::string> lines;
    for (const Request &request : server.Requests())
        lines.push_back(IsRegistration(request.Line) ? request.Line : "heartbeat");
    lines.resize(count);
    return lines;
}

/// The seconds between each request that starts with `word` and the next.
std::vector<double> Gaps(const CloudServer &server, const std::string &word)
{
    std::vector<double> gaps;
    const Request *last = nullptr;
    const std::vector<Request> requests = server.Requests();
    for (const Request &request : requests) {
        if (!request.Line.starts_with(word))
            continue;
        if (last != nullptr)
            gaps.push_back(std::chrono::duration<double>(request.Time - last->Time).count());
        last = &request;
    }
    return gaps;
}

/// The threads main, accept, reaper and discovery.
constexpr std::size_t kThreadsWithoutLink = 4;

class CloudLink : public ::testing::Test
{
protected:
    CloudLink() { NameHost("127.0.0.1", kHost); }

    void StartServer() { server_ = std::make_unique<CloudServer>(); }
    void StartAgent() { agent_ = std::make_unique<Agent>(); }
    [[nodiscard]] bool WaitForRequests(const std::string &word, std::size_t count,
                                       milliseconds limit = seconds(60))
    {
        return test::WaitForRequests(*server_, *agent_, word, count, limit);
    }
    /// Waits until the link thread has ended. The pause lets all threads start first.
    void ExpectNoLink() const
    {
        std::this_thread::sleep_for(seconds(3));
        EXPECT_TRUE(WaitUntil([this] { return agent_->Threads() == kThreadsWithoutLink; }));
        EXPECT_THAT(server_->Requests(), IsEmpty());
    }
    [[nodiscard]] long CloudTime(const std::string &column) const
    {
        return std::stol(panel_.Value("SELECT IFNULL(" + column + ", 0) FROM Cloud"));
    }

    TestPanel panel_{{}, TestPanel::Cloud::Enabled};
    /// The answers given so far, for tests that count. A member, because the server may still
    /// answer after a test's local variables are destroyed.
    std::atomic<unsigned> answered_ = 0;
    std::unique_ptr<CloudServer> server_;
    std::unique_ptr<Agent> agent_;
};

TEST_F(CloudLink, RegistersPanelAndThenSendsHeartbeats)
{
    panel_.Run("UPDATE Cloud SET StartTime=0, CheckTime=0");
    const std::time_t before = std::time(nullptr);
    StartServer();
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 1));
    EXPECT_EQ(server_->Requests()[0].Line, Registration("127.0.0.1", "0"));
    EXPECT_EQ(server_->Requests()[1].Line, "HeartBeat?DeviceNo=7");
    EXPECT_LT(server_->Requests()[1].Time - server_->Requests()[0].Time, milliseconds(2500));
    EXPECT_TRUE(WaitUntil([&] { return CloudTime("CheckTime") >= before; }));
    EXPECT_GE(CloudTime("StartTime"), before);
    EXPECT_LE(CloudTime("StartTime"), std::time(nullptr));
}

TEST_F(CloudLink, SendsHeartbeatEvery3Seconds)
{
    StartServer();
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 6));
    const std::vector<double> gaps = Gaps(*server_, "HeartBeat?");
    double sum = 0;
    for (const double gap : gaps) {
        // At least 3 seconds of a clock that counts whole seconds.
        EXPECT_GT(gap, 2);
        EXPECT_LT(gap, 5);
        sum += gap;
    }
    EXPECT_NEAR(sum / static_cast<double>(gaps.size()), 3, 1);
}

TEST_F(CloudLink, WritesCheckTimeOnceAMinute)
{
    StartServer();
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 2));
    const Stopwatch watch;
    panel_.Run("UPDATE Cloud SET CheckTime=0");
    ASSERT_TRUE(WaitUntil([&] { return CloudTime("CheckTime") != 0; }, seconds(75)));
    EXPECT_GT(watch.Seconds(), 50);
    EXPECT_LT(watch.Seconds(), 68);
}

TEST_F(CloudLink, WritesNoTimesBeforeRegistration)
{
    panel_.Run("UPDATE Cloud SET StartTime=0, CheckTime=0");
    StartServer();
    server_->SetAnswer(
        [](const std::string &) { return Reply{.Text = "SetDeviceInfoResponse?Result=5\n"}; });
    StartAgent();
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "SetDeviceInfo", "Result Error: 5"));
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "Process", "SetDeviceInfo fail"));
    EXPECT_EQ(CloudTime("StartTime"), 0);
    EXPECT_EQ(CloudTime("CheckTime"), 0);
}

TEST_F(CloudLink, RetriesRegistrationEvery30SecondsAndKeepsNumberOfRefusal)
{
    StartServer();
    server_->SetAnswer([&](const std::string &request) {
        if (!IsRegistration(request))
            return server_->GoodAnswer(request);
        // The 30 seconds pass from the beginning of an attempt, however long it takes.
        if (++answered_ == 1)
            return Reply{.Text = "SetDeviceInfoResponse?DeviceNo=5\n", .Delay = seconds(4)};
        return Reply{.Text = "SetDeviceInfoResponse?Result=0\n"};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 1));
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "SetDeviceInfo", "Result Error: -1"));
    EXPECT_EQ(server_->Requests()[2].Line, "HeartBeat?DeviceNo=5");
    const std::vector<double> gaps = Gaps(*server_, "SetDeviceInfo?");
    ASSERT_EQ(gaps.size(), 1U);
    EXPECT_GT(gaps[0], 28.5);
    EXPECT_LT(gaps[0], 33);
}

TEST_F(CloudLink, RegistersAgainAfter10ConsecutiveFailedHeartbeats)
{
    StartServer();
    server_->SetAnswer([&](const std::string &request) {
        return IsRegistration(request) ? server_->GoodAnswer(request)
                                       : Reply{.Text = "HeartBeatResponse?Result=3\n"};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 1));
    panel_.Run("UPDATE Cloud SET StartTime=0");
    ASSERT_TRUE(WaitForRequests("SetDeviceInfo?", 2));
    // Heartbeats follow the registration at once, so only the requests up to it are counted.
    const std::vector<Request> requests = server_->Requests();
    ASSERT_GT(requests.size(), 11U);
    for (std::size_t i = 1; i <= 10; ++i)
        EXPECT_EQ(requests[i].Line, "HeartBeat?DeviceNo=7");
    EXPECT_EQ(requests[11].Line, Registration("127.0.0.1", "0"));
    EXPECT_LT(requests[11].Time - requests[10].Time, seconds(8));
    EXPECT_TRUE(WaitUntil([this] { return CloudTime("StartTime") != 0; }));
    EXPECT_GE(agent_->CountMessages(kSource, "Process", "Heartbeat fail"), 10U);
    EXPECT_GE(agent_->CountMessages(kSource, "HeartBeat", "Result Error: 3"), 10U);
}

TEST_F(CloudLink, RegistersAgainAfter10ConsecutiveUnansweredHeartbeats)
{
    StartServer();
    server_->SetAnswer([&](const std::string &request) {
        return IsRegistration(request) ? server_->GoodAnswer(request) : Reply{};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("SetDeviceInfo?", 2, seconds(120)));
    const std::vector<Request> requests = server_->Requests();
    ASSERT_GT(requests.size(), 11U);
    for (std::size_t i = 1; i <= 10; ++i)
        EXPECT_EQ(requests[i].Line, "HeartBeat?DeviceNo=7");
    EXPECT_EQ(requests[11].Line, Registration("127.0.0.1", "0"));
    // Each takes its five seconds, and the next follows at once: three seconds since this one began
    // have passed.
    EXPECT_GE(requests[11].Time - requests[1].Time, seconds(40));
    EXPECT_LT(requests[11].Time - requests[1].Time, seconds(70));
    EXPECT_EQ(agent_->CountMessages(kSource, "HeartBeat", "RecvMessage fail"), 10U);
    EXPECT_EQ(agent_->CountMessages(kSource, "Process", "Heartbeat fail"), 10U);
}

TEST_F(CloudLink, CountsConsecutiveFailuresOnlyAndWritesCheckTimeOfSuccess)
{
    panel_.Run("UPDATE Cloud SET CheckTime=0");
    StartServer();
    server_->SetAnswer([&](const std::string &request) {
        if (IsRegistration(request) || ++answered_ % 10 == 0)
            return server_->GoodAnswer(request);
        return Reply{.Text = "HeartBeatResponse?Result=3\n"};
    });
    StartAgent();
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "Process", "Heartbeat fail", 5, seconds(60)));
    EXPECT_EQ(CloudTime("CheckTime"), 0);
    // Nine fail, one succeeds, and nine fail again.
    EXPECT_TRUE(WaitForRequests("HeartBeat?", 20, seconds(90)));
    const std::vector<std::string> requests = FirstRequests(*server_, 21);
    EXPECT_EQ(std::count(requests.begin(), requests.end(), "heartbeat"), 20);
    EXPECT_NE(CloudTime("CheckTime"), 0);
}

TEST_F(CloudLink, WaitsAtMost5SecondsForReply)
{
    StartServer();
    server_->SetAnswer([&](const std::string &request) {
        return IsRegistration(request) ? server_->GoodAnswer(request) : Reply{};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 4));
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "HeartBeat", "RecvMessage fail", 3));
    for (const double gap : Gaps(*server_, "HeartBeat?")) {
        EXPECT_GT(gap, 4);
        EXPECT_LT(gap, 9);
    }
}

/// A reply of the server and the message that the agent logs.
struct ReplyCase
{
    const char *Name;
    Reply Answer;
    const char *Message; ///< empty if the request succeeds
};

void PrintTo(const ReplyCase &reply, std::ostream *out)
{
    *out << reply.Name;
}

class HeartbeatReply : public CloudLink, public ::testing::WithParamInterface<ReplyCase>
{};

TEST_P(HeartbeatReply, IsAcceptedOrLoggedWithItsMessage)
{
    StartServer();
    server_->SetAnswer([&](const std::string &request) {
        return IsRegistration(request) ? server_->GoodAnswer(request) : GetParam().Answer;
    });
    StartAgent();
    if (*GetParam().Message == '\0') {
        ASSERT_TRUE(WaitForRequests("HeartBeat?", 3));
        EXPECT_EQ(agent_->CountInLog("Heartbeat fail"), 0U);
    } else {
        EXPECT_TRUE(agent_->WaitForMessage(kSource, "HeartBeat", GetParam().Message));
        EXPECT_TRUE(agent_->WaitForMessage(kSource, "Process", "Heartbeat fail"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Each, HeartbeatReply,
    ::testing::Values(
        ReplyCase{"Late", {.Text = "HeartBeatResponse?Result=0\n", .Delay = seconds(3)}, ""},
        ReplyCase{"Overdue",
                  {.Text = "HeartBeatResponse?Result=0\n", .Delay = seconds(7)},
                  "RecvMessage fail"},
        ReplyCase{"ConnectionClosed", {.Text = "", .Close = true}, "RecvMessage fail"},
        ReplyCase{"Garbage", {.Text = "\x01\xff&&==?=&\n"}, "Invalid Command"},
        ReplyCase{"Oversized", {.Text = std::string(5000, 'x') + "\n"}, "RecvMessage fail"},
        ReplyCase{"LongestLine",
                  {.Text = "HeartBeatResponse?Result=0&LinkType=0&LinkAddr=" +
                           std::string(975, 'a') + "\n"},
                  ""},
        ReplyCase{"WrongWord", {.Text = "SetDeviceInfoResponse?Result=0\n"}, "Invalid Command"},
        ReplyCase{"LongerWord", {.Text = "HeartBeatResponses?Result=0\n"}, "Invalid Command"},
        ReplyCase{"NoResult", {.Text = "HeartBeatResponse?DeviceNo=7\n"}, "Result Error: -1"},
        ReplyCase{"NoKeys", {.Text = "HeartBeatResponse\n"}, "Result Error: -1"},
        ReplyCase{"BadResult", {.Text = "HeartBeatResponse?Result=9\n"}, "Result Error: 9"},
        ReplyCase{"SeveralLines", {.Text = "HeartBeatResponse?Result=0\nand more\n"}, ""}),
    [](const auto &test) { return std::string(test.param.Name); });

class RegistrationReply : public CloudLink, public ::testing::WithParamInterface<ReplyCase>
{};

TEST_P(RegistrationReply, IsRefusedWithItsMessage)
{
    StartServer();
    server_->SetAnswer([](const std::string &) { return GetParam().Answer; });
    StartAgent();
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "SetDeviceInfo", GetParam().Message));
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "Process", "SetDeviceInfo fail"));
    std::this_thread::sleep_for(seconds(2));
    EXPECT_EQ(server_->Requests().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    Each, RegistrationReply,
    ::testing::Values(
        ReplyCase{"ConnectionClosed", {.Text = "", .Close = true}, "RecvMessage fail"},
        ReplyCase{"WrongWord", {.Text = "HeartBeatResponse?Result=0\n"}, "Invalid Command"},
        ReplyCase{"NoResult", {.Text = "SetDeviceInfoResponse?DeviceNo=7\n"}, "Result Error: -1"},
        ReplyCase{"BadResult", {.Text = "SetDeviceInfoResponse?Result=9\n"}, "Result Error: 9"}),
    [](const auto &test) { return std::string(test.param.Name); });

TEST_F(CloudLink, LogsUnknownKeysAndContinues)
{
    StartServer();
    server_->SetAnswer([&](const std::string &request) {
        Reply reply = server_->GoodAnswer(request);
        reply.Text.insert(reply.Text.size() - 1, "&Colour=blue");
        return reply;
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 2));
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "SetDeviceInfo", "Invalid Token: Colour"));
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "HeartBeat", "Invalid Token: Colour"));
    EXPECT_EQ(agent_->CountInLog("fail"), 0U);
}

TEST_F(CloudLink, KeepsDeviceNumberWhenHeartbeatReplyNamesAnother)
{
    StartServer();
    server_->SetAnswer([&](const std::string &request) {
        return IsRegistration(request) ? server_->GoodAnswer(request)
                                       : Reply{.Text = "HeartBeatResponse?Result=0&DeviceNo=99\n"};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?DeviceNo=7", 3));
    EXPECT_EQ(server_->Count("HeartBeat?DeviceNo=99"), 0U);
}

TEST_F(CloudLink, TakesDeviceNumberFromEveryRegistrationReply)
{
    StartServer();
    server_->SetAnswer([&](const std::string &request) {
        if (!IsRegistration(request))
            return Reply{.Text = "HeartBeatResponse?Result=0&LinkAddr=203.0.113.5&LinkPort=4000\n"};
        return Reply{.Text = ++answered_ == 1 ? "SetDeviceInfoResponse?Result=0\n"
                                              : "SetDeviceInfoResponse?Result=0&DeviceNo=8\n"};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?DeviceNo=8", 1));
    EXPECT_EQ(server_->Requests()[1].Line, "HeartBeat?DeviceNo=0");
    EXPECT_EQ(answered_, 2U);
}

TEST_F(CloudLink, IgnoresAddressOfOrderedSessionForPublicPort)
{
    StartServer();
    static constexpr std::array kReplies = {"LinkType=0&LinkAddr=203.0.113.1&LinkPort=4000",
                                            "LinkType=1&LinkAddr=127.0.0.1&LinkPort=9510",
                                            "LinkType=0&LinkAddr=203.0.113.2&LinkPort=4000"};
    server_->SetAnswer([&](const std::string &request) {
        if (IsRegistration(request))
            return server_->GoodAnswer(request);
        const std::size_t i = std::min<std::size_t>(answered_++, kReplies.size() - 1);
        return Reply{.Text = std::string("HeartBeatResponse?Result=0&") + kReplies[i] + "\n"};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", kReplies.size() + 1));
    EXPECT_THAT(FirstRequests(*server_, 6),
                ElementsAre(Registration("127.0.0.1", "0"), "heartbeat", "heartbeat", "heartbeat",
                            Registration("203.0.113.2", "4000"), "heartbeat"));
}

TEST_F(CloudLink, ReportsPublicPortAfter2EqualRepliesAndWithdrawsItOnChange)
{
    StartServer();
    static constexpr std::array kPorts = {"4000", "4000", "4000", "4001", "4002"};
    server_->SetAnswer([&](const std::string &request) {
        if (IsRegistration(request))
            return server_->GoodAnswer(request);
        const std::size_t i = std::min<std::size_t>(answered_++, kPorts.size() - 1);
        return Reply{.Text = "HeartBeatResponse?Result=0&LinkType=0&LinkAddr=203.0.113." +
                             std::to_string(i) + "&LinkPort=" + kPorts[i] + "\n"};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 1));
    // A report is not a registration: it writes no time and holds the settings of the start.
    panel_.Run("UPDATE Cloud SET StartTime=0, DevicePort=9001");
    TestPanel::Run(panel_.Paths().NetworkDatabase, "UPDATE Network SET IPAddress='192.168.77.11'");
    // One more heartbeat than replies, so that the last reply has taken effect.
    ASSERT_TRUE(WaitForRequests("HeartBeat?", kPorts.size() + 1));
    EXPECT_THAT(FirstRequests(*server_, 8),
                ElementsAre(Registration("127.0.0.1", "0"), "heartbeat", "heartbeat",
                            Registration("203.0.113.1", "4000"), "heartbeat", "heartbeat",
                            Registration("203.0.113.3", "0"), "heartbeat"));
    EXPECT_EQ(CloudTime("StartTime"), 0);
}

TEST_F(CloudLink, TreatsReplyWithoutLinkTypeAsReplyWithoutAddress)
{
    StartServer();
    server_->SetAnswer([&](const std::string &request) {
        if (IsRegistration(request))
            return server_->GoodAnswer(request);
        // The third reply has no address, so its change of port is reported without one.
        return Reply{.Text = ++answered_ < 3
                                 ? "HeartBeatResponse?Result=0&LinkAddr=203.0.113.9&LinkPort=4000\n"
                                 : "HeartBeatResponse?Result=0&DeviceNo=7\n"};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("SetDeviceInfo?", 3));
    std::vector<std::string> registrations;
    for (const Request &request : server_->Requests())
        if (IsRegistration(request.Line))
            registrations.push_back(request.Line);
    EXPECT_EQ(registrations[1], Registration("203.0.113.9", "4000"));
    EXPECT_EQ(registrations[2], Registration("", "0"));
}

TEST_F(CloudLink, KeepsPublicPortWhenRegisteringAgain)
{
    StartServer();
    server_->SetAnswer([&](const std::string &request) {
        const bool isFailing = ++answered_ > 2 && answered_ <= 13;
        if (IsRegistration(request)) {
            --answered_;
            return server_->GoodAnswer(request);
        }
        return Reply{
            .Text = isFailing ? "HeartBeatResponse?Result=1\n"
                              : "HeartBeatResponse?Result=0&LinkAddr=203.0.113.5&LinkPort=4000\n"};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 16, seconds(90)));
    std::vector<std::string> registrations;
    for (const Request &request : server_->Requests())
        if (IsRegistration(request.Line))
            registrations.push_back(request.Line);
    // The port is reported once, and again only by the registration after ten failures. The
    // eleventh failure is the first of the next ten.
    EXPECT_THAT(registrations,
                ElementsAre(Registration("127.0.0.1", "0"), Registration("203.0.113.5", "4000"),
                            Registration("203.0.113.5", "4000")));
}

TEST_F(CloudLink, CutsAddressAt31Bytes)
{
    StartServer();
    server_->SetAnswer([&](const std::string &request) {
        return IsRegistration(request)
                   ? server_->GoodAnswer(request)
                   : Reply{.Text = "HeartBeatResponse?Result=0&LinkAddr=" + std::string(40, 'a') +
                                   "&LinkPort=4000\n"};
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("SetDeviceInfo?", 2));
    const std::vector<Request> requests = server_->Requests();
    EXPECT_THAT(requests,
                Contains(Field(&Request::Line, Registration(std::string(31, 'a'), "4000"))));
}

TEST_F(CloudLink, ContinuesWhenTimesCannotBeWritten)
{
    StartServer();
    server_->SetAnswer([&](const std::string &request) {
        if (IsRegistration(request))
            panel_.Run("DROP TABLE IF EXISTS Cloud");
        return server_->GoodAnswer(request);
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 3));
    EXPECT_TRUE(agent_->WaitForMessage("ConfigManager.cpp", "SetCommTime", "sqlite3_exec fail", 2));
    EXPECT_EQ(agent_->CountInLog("Heartbeat fail"), 0U);
}

TEST_F(CloudLink, ContinuesWhenPortReportFails)
{
    StartServer();
    server_->SetAnswer([&](const std::string &request) {
        if (IsRegistration(request) && ++answered_ > 1)
            return Reply{.Text = "SetDeviceInfoResponse?Result=1\n"};
        return server_->GoodAnswer(request);
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 5));
    EXPECT_EQ(answered_, 2U);
    EXPECT_EQ(agent_->CountInLog("Process(): "), 0U);
}

TEST_F(CloudLink, DoesNotConnectWhenDisabled)
{
    panel_.Run("UPDATE Cloud SET Enabled=0");
    StartServer();
    StartAgent();
    ExpectNoLink();
}

TEST_F(CloudLink, DoesNotConnectForUnknownModel)
{
    TestPanel::Run(panel_.Paths().NetworkDatabase, "UPDATE Network SET Model=5");
    StartServer();
    StartAgent();
    ExpectNoLink();
}

TEST_F(CloudLink, ConnectsToServerThatStartsLater)
{
    const Stopwatch watch;
    StartAgent();
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "OpenSocket",
                                       std::string("connect fail ") + kHost + ":127.0.0.1:9500"));
    // After its first second it tries for ten seconds of a clock that counts whole seconds.
    EXPECT_GE(watch.Seconds(), 10);
    EXPECT_LT(watch.Seconds(), 16);
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "SetDeviceInfo", "OpenSocket fail"));
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "Process", "SetDeviceInfo fail"));
    EXPECT_TRUE(WaitUntil([this] { return agent_->Descriptors() == Agent::kDescriptorsAtRest; }));
    StartServer();
    EXPECT_TRUE(WaitForRequests("HeartBeat?", 1));
}

TEST_F(CloudLink, ConnectsToServerThatStartsDuringAttempt)
{
    StartAgent();
    std::this_thread::sleep_for(seconds(5));
    StartServer();
    EXPECT_TRUE(WaitForRequests("HeartBeat?", 1));
    EXPECT_EQ(agent_->CountInLog("fail"), 0U);
}

/// A host that neither accepts nor refuses connections: the queue of its listener is full.
class SilentHost
{
public:
    SilentHost()
    {
        EXPECT_TRUE(listener_.Bind("127.0.0.1", 9500));
        EXPECT_TRUE(listener_.Listen(0));
        EXPECT_TRUE(waiting_.Connect("127.0.0.1", 9500));
    }

private:
    TestSocket listener_;
    TestSocket waiting_;
};

TEST_F(CloudLink, GivesUpSilentHostAfter10Seconds)
{
    const SilentHost host;
    const Stopwatch watch;
    StartAgent();
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "OpenSocket",
                                       std::string("connect fail ") + kHost + ":127.0.0.1:9500", 1,
                                       seconds(60)));
    EXPECT_GE(watch.Seconds(), 10);
    EXPECT_LT(watch.Seconds(), 16);
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "SetDeviceInfo", "OpenSocket fail"));
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "Process", "SetDeviceInfo fail"));
    EXPECT_TRUE(WaitUntil([this] { return agent_->Descriptors() == Agent::kDescriptorsAtRest; }));
}

TEST_F(CloudLink, ReconnectsToRestartedServer)
{
    StartServer();
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 2));
    server_.reset();
    // The report of a port may be sent before the heartbeat, and takes ten seconds too.
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "HeartBeat", "OpenSocket fail", 1, seconds(60)));
    EXPECT_TRUE(agent_->WaitForMessage(kSource, "Process", "Heartbeat fail"));
    StartServer();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 2));
    // One failure does not cause a registration. A "SetDeviceInfo?" here is the report of a port.
    EXPECT_EQ(server_->Requests()[0].Line, "HeartBeat?DeviceNo=7");
}

TEST_F(CloudLink, LeavesNoConnectionOpenBetweenExchanges)
{
    StartServer();
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 2));
    // The count may be taken during an exchange. If each exchange left one descriptor open, there
    // would be four more.
    const std::size_t descriptors = agent_->Descriptors();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 6));
    EXPECT_TRUE(WaitUntil([&] { return agent_->Descriptors() <= descriptors; }));
}

/// The end of the agent at different states of its link.
class CloudLinkShutdown : public CloudLink
{
protected:
    void ExpectQuickEnd()
    {
        const Stopwatch watch;
        EXPECT_EQ(agent_->End(), 0);
        // Usually one second; a sanitizer on a busy machine takes longer. A reply has five.
        EXPECT_LT(watch.Seconds(), kIsSanitized ? 9 : 4);
    }
};

TEST_F(CloudLinkShutdown, IsQuickDuringNameLookup)
{
    WriteFile("/etc/hosts", "127.0.0.1 localhost\n");
    StartAgent();
    std::this_thread::sleep_for(seconds(2));
    ExpectQuickEnd();
}

TEST_F(CloudLinkShutdown, IsQuickWhileAddressDoesNotAnswer)
{
    // No host of the segment has this address.
    WriteFile("/etc/hosts", "192.168.77.99 cloud.nimbra.example\n");
    StartAgent();
    std::this_thread::sleep_for(seconds(3));
    EXPECT_EQ(agent_->CountInLog("fail"), 0U);
    ExpectQuickEnd();
}

TEST_F(CloudLinkShutdown, IsQuickWhileReplyIsPending)
{
    StartServer();
    server_->SetAnswer([](const std::string &) { return Reply{}; });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("SetDeviceInfo?", 1));
    ExpectQuickEnd();
}

TEST_F(CloudLinkShutdown, IsQuickBetweenHeartbeats)
{
    StartServer();
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 1));
    ExpectQuickEnd();
}

} // namespace

} // namespace nimbra::test
