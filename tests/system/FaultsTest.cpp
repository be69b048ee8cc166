// Calls of the operating system that fail while the agent works. The agent answers as far as
// possible, loses nothing, and serves fully when the calls succeed again.

#include "support/Faults.h"

#include "simulator/cloud/CloudServer.h"
#include "support/Agent.h"
#include "support/CloudRequests.h"
#include "support/DiscoveryProbe.h"
#include "support/Files.h"
#include "support/ManagementClient.h"
#include "support/Matchers.h"
#include "support/TestPanel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

namespace nimbra::test {
namespace {

using ::testing::ElementsAre;
using ::testing::Optional;
using ::testing::StartsWith;

using faults::Point;

constexpr char kHeartbeat[] = "Heartbeat?";
constexpr char kHeartbeatAnswer[] = "HeartbeatResponse?Result=0";

/// Which calls at a point fail, and how.
struct Fault
{
    const char *Name;
    Point At;
    int Error;
    std::uint32_t First = 1;
    std::uint32_t Number = 1;
    /// The message that reports the fault, if any: its source, method and text.
    const char *Source = "";
    const char *Method = "";
    const char *Message = "";
};

std::ostream &operator<<(std::ostream &out, const Fault &fault)
{
    return out << fault.Name;
}

std::string NameOf(const ::testing::TestParamInfo<Fault> &info)
{
    return std::string(info.param.Name) + "_" + std::to_string(info.param.First) +
           (info.param.Number == 1 ? "" : "_" + std::to_string(info.param.Number) + "Times");
}

/// An agent that follows the rules of `faults_` from its first call on.
class FaultTest : public ::testing::Test
{
protected:
    explicit FaultTest(TestPanel::Cloud cloud = TestPanel::Cloud::Disabled) : panel_({}, cloud) {}
    ~FaultTest() override
    {
        if (served_ == nullptr || !agent_->IsRunning())
            return;
        // A session that has just received a line ends at once.
        agent_->Signal(SIGTERM);
        served_->SendLine(kHeartbeat);
    }

    void StartAgent() { agent_ = std::make_unique<Agent>(faults_.Preloaded()); }

    void StartAgentWithoutWaiting()
    {
        Agent::Options options = faults_.Preloaded();
        options.WaitUntilServing = false;
        agent_ = std::make_unique<Agent>(options);
    }

    void Inject(const Fault &fault)
    {
        faults_.Fail(fault.At, fault.Error, fault.First, fault.Number);
    }

    /// Waits until all calls of the fault have failed.
    void ExpectFailed(const Fault &fault)
    {
        EXPECT_TRUE(WaitUntil([&] {
            static_cast<void>(agent_->Log());
            return faults_.Failed(fault.At) == fault.Number;
        })) << faults_.Failed(fault.At);
    }

    void ExpectMessage(const Fault &fault)
    {
        EXPECT_TRUE(agent_->WaitForMessage(fault.Source, fault.Method, fault.Message));
    }

    /// Shows that a session and a probe are answered.
    void ExpectFullService()
    {
        served_ = std::make_unique<ManagementClient>(LoggedIn());
        EXPECT_EQ(served_->Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=1");
        EXPECT_EQ(served_->Ask("SetUserInfo?UserNo=2&LastName=Served"),
                  "SetUserInfoResponse?Result=0");
        ExpectDiscovery();
    }

    /// Shows that probes are answered after the responder has started.
    static void ExpectDiscovery()
    {
        EXPECT_TRUE(WaitUntil([] {
            const DiscoveryProbe probe;
            probe.Send("Scan?Key=7");
            return probe.Receive(milliseconds(100))
                .value_or("")
                .starts_with("ScanResponse?Result=0&Key=7&");
        }));
    }

    /// Whether only the three standard descriptors, the listener and the two sockets of discovery
    /// are open.
    [[nodiscard]] bool HasOpenedAll() const
    {
        return agent_->Descriptors() == Agent::kDescriptorsAtRest;
    }

    Faults faults_;
    TestPanel panel_;
    std::unique_ptr<Agent> agent_;
    std::unique_ptr<ManagementClient> served_;
};

/// A fault of the start after which the agent retries.
class StartFault : public FaultTest, public ::testing::WithParamInterface<Fault>
{};

TEST_P(StartFault, DelaysService)
{
    const Stopwatch watch;
    Inject(GetParam());
    StartAgent();
    ExpectFailed(GetParam());
    // Discovery starts last.
    ExpectDiscovery();
    EXPECT_GT(watch.Seconds(), 3.0 * GetParam().Number);
    if (GetParam().Message[0] != '\0')
        ExpectMessage(GetParam());
    ExpectFullService();
    // Main, accept, reaper, discovery, and at most the session.
    EXPECT_TRUE(WaitUntil([this] { return agent_->Threads() <= 5; }));
}

constexpr char kConfig[] = "ConfigManager.cpp";
constexpr char kListener[] = "ClientManager.cpp";
constexpr char kLink[] = "ServerManager.cpp";
constexpr char kScan[] = "ScanManager.cpp";
constexpr char kNoThread[] = "pthread_create fail";
constexpr char kNoDatabase[] = "sqlite3_open fail";
constexpr int kError = 1; ///< SQLite's codes
constexpr int kCannotOpen = 14;
constexpr int kInputOutput = 10;

INSTANTIATE_TEST_SUITE_P(
    Call, StartFault,
    ::testing::Values(
        Fault{"Popen", Point::OpenPipe, EAGAIN}, Fault{"Popen", Point::OpenPipe, ENOMEM, 1, 2},
        Fault{"SqliteOpen", Point::OpenDatabase, kCannotOpen, 1, 1, kConfig, "ReadServerInfo",
              kNoDatabase},
        Fault{"SqliteOpen", Point::OpenDatabase, kCannotOpen, 2, 1, kConfig, "ReadNetworkInfo",
              kNoDatabase},
        Fault{"SqliteExec", Point::ExecuteStatement, kInputOutput, 1, 1, kConfig, "ReadServerInfo",
              "sqlite3_exec fail[10]"},
        Fault{"SqlitePrepare", Point::PrepareStatement, kInputOutput, 1},
        Fault{"SqlitePrepare", Point::PrepareStatement, kInputOutput, 2},
        Fault{"SqliteStep", Point::StepStatement, kInputOutput, 1},
        Fault{"SqliteStep", Point::StepStatement, kInputOutput, 2},
        Fault{"PthreadCreate", Point::CreateThread, EAGAIN, 1, 1, kListener, "Start", kNoThread},
        Fault{"PthreadCreate", Point::CreateThread, EAGAIN, 2, 1, kListener, "Start", kNoThread},
        Fault{"PthreadCreate", Point::CreateThread, EAGAIN, 3, 1, kLink, "Start", kNoThread},
        Fault{"PthreadCreate", Point::CreateThread, EAGAIN, 4, 1, kScan, "Start", kNoThread}),
    NameOf);

/// A fault that leaves the agent without a listener until its end.
class ListenerFault : public FaultTest, public ::testing::WithParamInterface<Fault>
{};

TEST_P(ListenerFault, LeavesOtherServicesRunning)
{
    Inject(GetParam());
    StartAgentWithoutWaiting();
    ExpectFailed(GetParam());
    ExpectMessage(GetParam());
    EXPECT_TRUE(agent_->WaitForMessage(kListener, "Process", "OpenSocket fail"));
    ExpectDiscovery();
    EXPECT_EQ(agent_->CountInLog(", Port: 9000"), 0U);
    // Only the listener is missing.
    EXPECT_TRUE(WaitUntil([this] {
        return agent_->Descriptors() == Agent::kDescriptorsAtRest - 1;
    })) << agent_->Descriptors();
    EXPECT_EQ(agent_->End(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Call, ListenerFault,
    ::testing::Values(
        Fault{"Socket", Point::StreamSocket, EMFILE, 1, 1, kListener, "OpenSocket", "socket fail"},
        Fault{"Setsockopt", Point::ReuseAddress, EINVAL, 1, 1, kListener, "OpenSocket",
              "setsockopt fail"},
        Fault{"Fcntl", Point::StatusFlags, EBADF, 1, 1, kListener, "OpenSocket", "fcntl fail"},
        Fault{"Fcntl", Point::StatusFlags, EBADF, 2, 1, kListener, "OpenSocket", "fcntl fail"},
        Fault{"Bind", Point::BindStream, EADDRINUSE, 1, 1, kListener, "OpenSocket", "bind fail"},
        Fault{"Listen", Point::Listen, EADDRINUSE, 1, 1, kListener, "OpenSocket", "listen fail"}),
    NameOf);

/// A fault of the sockets of the discovery responder.
class DiscoveryFault : public FaultTest, public ::testing::WithParamInterface<Fault>
{};

TEST_P(DiscoveryFault, IsRetriedEverySecond)
{
    Inject(GetParam());
    StartAgent();
    ExpectFailed(GetParam());
    ExpectMessage(GetParam());
    ExpectFullService();
    EXPECT_EQ(agent_->CountMessages(kScan, "OpenSocket", GetParam().Message), GetParam().Number);
}

INSTANTIATE_TEST_SUITE_P(
    Call, DiscoveryFault,
    ::testing::Values(
        Fault{"Socket", Point::DatagramSocket, EMFILE, 1, 1, kScan, "OpenSocket", "socket fail"},
        Fault{"Socket", Point::DatagramSocket, EMFILE, 2, 1, kScan, "OpenSocket", "socket fail"},
        Fault{"Socket", Point::DatagramSocket, ENOBUFS, 1, 3, kScan, "OpenSocket", "socket fail"},
        Fault{"Setsockopt", Point::Broadcast, EINVAL, 1, 1, kScan, "OpenSocket", "setsockopt fail"},
        Fault{"Setsockopt", Point::Broadcast, EINVAL, 2, 1, kScan, "OpenSocket", "setsockopt fail"},
        Fault{"Bind", Point::BindDatagram, EADDRINUSE, 1, 2, kScan, "OpenSocket", "bind fail"}),
    NameOf);

/// A fault while probes are answered.
using ProbeFault = FaultTest;

TEST_F(ProbeFault, FailedSendLosesOneProbeAnswer)
{
    StartAgent();
    ASSERT_TRUE(WaitUntil([this] { return HasOpenedAll(); }));
    const DiscoveryProbe probe;
    EXPECT_THAT(probe.Ask("Scan?Key=1"), StartsWith("ScanResponse?Result=0&Key=1&"));
    faults_.Fail(Point::SendDatagram, ENETUNREACH);
    probe.Send("Scan?Key=2");
    probe.Send("Scan?Key=3");
    EXPECT_THAT(probe.Receive(), Optional(StartsWith("ScanResponse?Result=0&Key=3&")));
    EXPECT_EQ(faults_.Failed(Point::SendDatagram), 1U);
    // The log holds the lost answer like the others, and no message about the loss.
    EXPECT_EQ(agent_->CountInLog("ScanResponse?Result=0&Key=2&"), 1U);
    EXPECT_EQ(agent_->CountInLog(":ScanManager.cpp:"), 0U);
}

TEST_F(ProbeFault, FailedReceiveDelaysProbe)
{
    StartAgent();
    ASSERT_TRUE(WaitUntil([this] { return HasOpenedAll(); }));
    faults_.Fail(Point::ReceiveDatagram, ENOMEM, 1, 2);
    EXPECT_THAT(DiscoveryProbe().Ask("Scan?Key=4"), StartsWith("ScanResponse?Result=0&Key=4&"));
    EXPECT_EQ(faults_.Failed(Point::ReceiveDatagram), 2U);
}

TEST_F(ProbeFault, SocketIsPolledOnceASecondWithoutProbe)
{
    StartAgent();
    ASSERT_TRUE(WaitUntil([this] { return HasOpenedAll(); }));
    const Stopwatch watch;
    faults_.Stop(Point::ReceiveDatagram);
    std::this_thread::sleep_for(seconds(5));
    const std::size_t calls = faults_.Calls(Point::ReceiveDatagram);
    EXPECT_GE(calls, 3U);
    EXPECT_LE(static_cast<double>(calls), watch.Seconds() + 2);
}

/// Faults while a session is served.
class SessionFault : public FaultTest
{
protected:
    static constexpr std::size_t kThreads = 5;

    SessionFault()
    {
        StartAgent();
        client_ = std::make_unique<ManagementClient>(LoggedIn());
        EXPECT_THAT(client_->Ask("GetUserInfo?UserNo=1"),
                    StartsWith("GetUserInfoResponse?Result=0"));
        // Main, accept, reaper, discovery and the session; the cloud link ends, it is off.
        EXPECT_TRUE(WaitUntil([this] { return agent_->Threads() == kThreads; }));
        descriptors_ = agent_->Descriptors();
    }

    /// Shows that only the one session is left, and that it is in step.
    ~SessionFault() override
    {
        EXPECT_EQ(client_->Ask(kHeartbeat), kHeartbeatAnswer);
        EXPECT_TRUE(WaitUntil([this] {
            static_cast<void>(client_->Ask(kHeartbeat));
            return agent_->Descriptors() == descriptors_ && agent_->Threads() == kThreads;
        })) << agent_->Descriptors()
            << " descriptors, " << agent_->Threads() << " threads";
        // A session that has just received a line ends at once.
        agent_->Signal(SIGTERM);
        client_->SendLine(kHeartbeat);
    }

    std::unique_ptr<ManagementClient> client_;

private:
    std::size_t descriptors_ = 0;
};

class SessionFaultCase : public SessionFault, public ::testing::WithParamInterface<Fault>
{};

using AcceptFault = SessionFaultCase;

TEST_P(AcceptFault, IsRetriedEverySecond)
{
    Inject(GetParam());
    ManagementClient next;
    const Stopwatch watch;
    EXPECT_THAT(next.Ask("Hello?"), IsGreeting());
    ExpectFailed(GetParam());
    // The first attempt may come at once.
    EXPECT_GT(watch.Seconds(), GetParam().Number - 1.0);
    EXPECT_EQ(agent_->CountInLog(":ClientManager.cpp:"), 0U) << "the faults are not logged";
}

INSTANTIATE_TEST_SUITE_P(Call, AcceptFault,
                         ::testing::Values(Fault{"OutOfDescriptors", Point::Accept, EMFILE},
                                           Fault{"Aborted", Point::Accept, ECONNABORTED, 1, 2},
                                           Fault{"Interrupted", Point::Accept, EINTR, 2},
                                           Fault{"OutOfMemory", Point::Accept, ENOMEM, 1, 3}),
                         NameOf);

using SessionThreadFault = SessionFaultCase;

TEST_P(SessionThreadFault, AffectsItsOwnClientOnly)
{
    const std::uint32_t failing = GetParam().First;
    Inject(GetParam());
    for (std::uint32_t number = 1; number <= failing + 1; ++number) {
        ManagementClient next;
        if (number == failing)
            EXPECT_TRUE(next.IsClosedByPeer());
        else
            EXPECT_THAT(next.Ask("Hello?"), IsGreeting());
    }
    ExpectFailed(GetParam());
    ExpectMessage(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Call, SessionThreadFault,
                         ::testing::Values(Fault{"PthreadCreate", Point::CreateThread, EAGAIN, 1, 1,
                                                 "ClientWorker.cpp", "Start", kNoThread},
                                           Fault{"PthreadCreate", Point::CreateThread, EAGAIN, 2, 1,
                                                 "ClientWorker.cpp", "Start", kNoThread}),
                         NameOf);

using SendFault = SessionFaultCase;

TEST_P(SendFault, LosesOneAnswerOnly)
{
    Inject(GetParam());
    for (std::uint32_t number = 1; number <= GetParam().First + 1; ++number) {
        client_->SendLine("GetThreatInfo?Level=" + std::to_string(number % 5));
        if (number == GetParam().First)
            ExpectFailed(GetParam());
        else
            EXPECT_THAT(client_->ReadLine(),
                        Optional(StartsWith("GetThreatInfoResponse?Result=0&Level=" +
                                            std::to_string(number % 5))));
    }
}

INSTANTIATE_TEST_SUITE_P(Call, SendFault,
                         ::testing::Values(Fault{"Pipe", Point::Send, EPIPE, 1},
                                           Fault{"Pipe", Point::Send, EPIPE, 2},
                                           Fault{"Reset", Point::Send, ECONNRESET, 5},
                                           Fault{"OutOfMemory", Point::Send, ENOMEM, 3}),
                         NameOf);

TEST_F(SessionFault, SendWaitsForBlockedSocket)
{
    faults_.Fail(Point::Send, EAGAIN, 1, 4);
    const Stopwatch watch;
    EXPECT_EQ(client_->Ask(kHeartbeat), kHeartbeatAnswer);
    EXPECT_EQ(faults_.Failed(Point::Send), 4U);
    // The socket is always ready: the first and the third failure are followed by a wait for the
    // socket, the second and the fourth by a wait for the next second.
    EXPECT_GE(watch.Seconds(), 1);
}

TEST_F(SessionFault, IdleSocketIsReadOnceASecond)
{
    const Stopwatch watch;
    faults_.Stop(Point::Receive);
    EXPECT_TRUE(client_->IsSilent(seconds(4)));
    const std::size_t calls = faults_.Calls(Point::Receive);
    EXPECT_GE(calls, 3U);
    // One more call when a new receive starts.
    EXPECT_LE(static_cast<double>(calls), watch.Seconds() + 3);
}

TEST_F(SessionFault, FailedReceiveLosesPartialLine)
{
    const std::string half = "GetThreat";
    faults_.Stop(Point::Receive);
    client_->Send(half);
    // All bytes have been read when the agent reads again.
    ASSERT_TRUE(WaitUntil([&] { return faults_.Calls(Point::Receive) > half.size() + 1; }));
    faults_.Fail(Point::Receive, EIO);
    ASSERT_TRUE(WaitUntil([this] { return faults_.Failed(Point::Receive) == 1; }));
    client_->SendLine("Level?");
    EXPECT_TRUE(agent_->WaitForMessage("ClientWorker.cpp", "Process", "Invalid Message"));
    EXPECT_EQ(client_->Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=1");
}

TEST_F(SessionFault, LastingReceiveFaultTakesNoProcessorTime)
{
    faults_.Fail(Point::Receive, EIO, 1, Faults::kAlways);
    const Stopwatch watch;
    const double before = agent_->CpuSeconds();
    client_->SendLine(kHeartbeat);
    EXPECT_TRUE(client_->IsSilent(seconds(4)));
    EXPECT_LT(agent_->CpuSeconds() - before, 0.5);
    EXPECT_LE(static_cast<double>(faults_.Calls(Point::Receive)), watch.Seconds() + 2);
    faults_.Stop(Point::Receive);
    EXPECT_EQ(client_->ReadLine(), kHeartbeatAnswer);
    EXPECT_EQ(client_->Ask(kHeartbeat), kHeartbeatAnswer);
}

TEST_F(SessionFault, PermanentReceiveFaultEndsSessionLikeSilentOne)
{
    ManagementClient other = LoggedIn();
    faults_.Fail(Point::Receive, EIO, 1, Faults::kAlways);
    const Stopwatch watch;
    EXPECT_TRUE(other.IsClosedByPeer(seconds(40)));
    EXPECT_GT(watch.Seconds(), 9);
    faults_.Stop(Point::Receive);
    client_ = std::make_unique<ManagementClient>(LoggedIn());
}

TEST_F(SessionFault, FailedCommandToolDoesNotFailCommand)
{
    const std::size_t calls = panel_.Calls().size();
    for (std::uint32_t first = 1; first <= 2; ++first) {
        faults_.Fail(Point::RunShell, EAGAIN, first, Faults::kAlways);
        EXPECT_EQ(client_->Ask("SetAuxOutput?Port=1&Control=1"), "SetAuxOutputResponse?Result=0");
        EXPECT_EQ(client_->Ask("SetThreatLevel?ThreatLevel=3"), "SetThreatLevelResponse?Result=0");
    }
    EXPECT_EQ(client_->Ask("SetDoorLock?Port=1&Control=1"), "SetDoorLockResponse?Result=0");
    faults_.Stop(Point::RunShell);
    EXPECT_EQ(panel_.Value("SELECT ThreatStatus FROM Threat"), "3");
    // Only the first call of the second round was made.
    EXPECT_THAT(panel_.Calls(calls), ElementsAre(panel::Call{"auxout", "1", "on"}));
    EXPECT_EQ(client_->Ask("SetAuxOutput?Port=1&Control=0"), "SetAuxOutputResponse?Result=0");
    EXPECT_THAT(panel_.Calls(calls + 1),
                ElementsAre(panel::Call{"auxout", "1", "off"}, AuditCall(11415)));
}

TEST_F(SessionFault, FailedJournalNumberLookupCountsFromOne)
{
    panel_.Run("INSERT INTO DBQueryInfo VALUES (5, 'earlier', 1)");
    faults_.Fail(Point::PrepareStatement, kError);
    EXPECT_EQ(client_->Ask("SetUserInfo?UserNo=2&LastName=Changed"),
              "SetUserInfoResponse?Result=0");
    EXPECT_EQ(faults_.Failed(Point::PrepareStatement), 1U);
    EXPECT_THAT(panel_.Rows("SELECT Idseq FROM DBQueryInfo ORDER BY rowid"),
                ElementsAre(Row{"5"}, Row{"1"}));
    EXPECT_EQ(panel_.Value("SELECT LastName FROM User WHERE No=2"), "Changed");
    EXPECT_EQ(agent_->CountInLog("sqlite3_exec"), 0U);
}

using ImageFileFault = SessionFaultCase;

TEST_P(ImageFileFault, KeepsOldImage)
{
    for (std::uint32_t number = 1; number < GetParam().First; ++number)
        EXPECT_EQ(client_->Upload(1, "user0001.jpg", "an earlier image"),
                  "SetUserImageResponse?Result=0");
    const auto files = panel_.Files();
    const auto rows = TestPanel::Dump(panel_.Paths().MainDatabase);
    Inject(Fault{GetParam().Name, GetParam().At, GetParam().Error});
    EXPECT_EQ(client_->Upload(1, "user0001.jpg", std::string(100000, 'x')),
              "SetUserImageResponse?Result=2");
    EXPECT_EQ(faults_.Failed(GetParam().At), 1U);
    ExpectMessage(GetParam());
    EXPECT_TRUE(panel_.Files() == files);
    EXPECT_EQ(TestPanel::Dump(panel_.Paths().MainDatabase), rows);
    EXPECT_EQ(client_->Upload(1, "user0001.jpg", "the new image"), "SetUserImageResponse?Result=0");
    EXPECT_EQ(client_->Ask("GetUserImage?UserNo=1"),
              "GetUserImageResponse?Result=0&FileName=user0001.jpg&Size=13");
    EXPECT_EQ(client_->ReadBytes(13), "the new image");
}

INSTANTIATE_TEST_SUITE_P(Call, ImageFileFault,
                         ::testing::Values(Fault{"Mkostemp", Point::CreateTemporary, EROFS, 1, 1,
                                                 "ClientWorker.cpp", "SetUserImage", "fopen fail"},
                                           Fault{"Write", Point::Write, ENOSPC, 1, 1,
                                                 "ClientWorker.cpp", "SetUserImage", "fopen fail"},
                                           Fault{"Write", Point::Write, EIO, 2, 1,
                                                 "ClientWorker.cpp", "SetUserImage", "fopen fail"},
                                           Fault{"Fsync", Point::Sync, EIO, 1, 1,
                                                 "ClientWorker.cpp", "SetUserImage", "fopen fail"},
                                           Fault{"Rename", Point::Rename, EIO, 1, 1,
                                                 "ClientWorker.cpp", "SetUserImage", "fopen fail"},
                                           Fault{"Rename", Point::Rename, ENOSPC, 3, 1,
                                                 "ClientWorker.cpp", "SetUserImage", "fopen fail"}),
                         NameOf);

TEST_F(SessionFault, UploadIsSyncedRenamedAndThenItsDirectoryIsSynced)
{
    EXPECT_EQ(client_->Upload(1, "user0001.jpg", "the new image"), "SetUserImageResponse?Result=0");
    EXPECT_GT(faults_.Turn(Point::Sync), faults_.Turn(Point::Write));
    EXPECT_GT(faults_.Turn(Point::Rename), faults_.Turn(Point::Sync));
    EXPECT_GT(faults_.Turn(Point::SyncDirectory), faults_.Turn(Point::Rename));
    // The database names an image only when the image lasts.
    EXPECT_GT(faults_.Turn(Point::ExecuteStatement), faults_.Turn(Point::SyncDirectory));
}

TEST_F(SessionFault, UploadSucceedsWhenDirectoryCannotBeSynced)
{
    faults_.Fail(Point::SyncDirectory, EIO);
    EXPECT_EQ(client_->Upload(1, "user0001.jpg", "the new image"), "SetUserImageResponse?Result=0");
    EXPECT_EQ(faults_.Failed(Point::SyncDirectory), 1U);
    EXPECT_EQ(client_->Ask("GetUserImage?UserNo=1"),
              "GetUserImageResponse?Result=0&FileName=user0001.jpg&Size=13");
    EXPECT_EQ(client_->ReadBytes(13), "the new image");
}

TEST_F(SessionFault, UnreadLogBlocksUntilItIsRead)
{
    // Each empty line causes a log line; all of them are more than the pipe holds.
    const std::string lines(20000, '\n');
    client_->Send(lines);
    client_->SendLine(kHeartbeat);
    EXPECT_TRUE(client_->IsSilent(seconds(3)));
    EXPECT_TRUE(WaitUntil(
        [&] {
            static_cast<void>(agent_->Log());
            return !client_->IsSilent(milliseconds(1));
        },
        seconds(60)));
    EXPECT_EQ(client_->ReadLine(), kHeartbeatAnswer);
    EXPECT_EQ(agent_->CountMessages("ClientWorker.cpp", "Process", "Invalid Message"),
              lines.size());
}

TEST_F(SessionFault, UnopenedImageIsReportedAndNextRequestServed)
{
    faults_.Fail(Point::OpenImage, EMFILE);
    EXPECT_EQ(client_->Ask("GetUserImage?UserNo=1"), "GetUserImageResponse?Result=2");
    EXPECT_TRUE(agent_->WaitForMessage("ClientWorker.cpp", "GetUserImage", "fopen fail"));
    const std::string answer = client_->Ask("GetUserImage?UserNo=1");
    EXPECT_THAT(answer, StartsWith("GetUserImageResponse?Result=0&FileName=user0001.jpg&Size="));
    static_cast<void>(client_->ReadBytes(std::stoul(answer.substr(answer.find("&Size=") + 6))));
}

TEST_F(SessionFault, FailedSendOfListLosesFirstLineOnly)
{
    std::vector<std::string> lines = client_->AskList("GetThreatInfoEx?");
    ASSERT_EQ(lines.size(), panel::kThreatLevels.size() + 1);
    // All lines are sent with one call: the first is lost, and the others are sent again.
    faults_.Fail(Point::Send, EPIPE);
    client_->SendLine("GetThreatInfoEx?");
    lines.erase(lines.begin());
    for (const std::string &line : lines)
        EXPECT_EQ(client_->ReadLine(), line);
    EXPECT_EQ(faults_.Failed(Point::Send), 1U);
}

/// Faults of the cloud link's exchanges.
class CloudLinkFault : public FaultTest, public ::testing::WithParamInterface<Fault>
{
protected:
    CloudLinkFault() : FaultTest(TestPanel::Cloud::Enabled)
    {
        NameHost("127.0.0.1", "cloud.nimbra.example");
    }

    [[nodiscard]] bool WaitForRequests(const std::string &word, std::size_t count)
    {
        return test::WaitForRequests(server_, *agent_, word, count);
    }

    simulator::CloudServer server_;
};

TEST_P(CloudLinkFault, FailsHeartbeatsButKeepsLink)
{
    StartAgent();
    // After the report of the port, all exchanges are heartbeats.
    ASSERT_TRUE(WaitForRequests("SetDeviceInfo?", 2));
    ASSERT_TRUE(WaitUntil([this] { return HasOpenedAll(); }));
    Inject(GetParam());
    EXPECT_TRUE(WaitUntil([this] { return faults_.Failed(GetParam().At) == GetParam().Number; },
                          seconds(60)));
    if (GetParam().Message[0] != '\0') {
        ExpectMessage(GetParam());
        EXPECT_TRUE(agent_->WaitForMessage(kLink, "Process", "Heartbeat fail", GetParam().Number,
                                           seconds(60)));
    }
    EXPECT_TRUE(WaitForRequests("HeartBeat?", server_.Count("HeartBeat?") + 2));
    EXPECT_EQ(agent_->CountMessages(kLink, "Process", "Heartbeat fail"),
              GetParam().Message[0] != '\0' ? GetParam().Number : 0U);
    EXPECT_EQ(server_.Count("SetDeviceInfo?"), 2U);
    EXPECT_TRUE(WaitUntil([this] { return HasOpenedAll(); }));
}

INSTANTIATE_TEST_SUITE_P(
    Call, CloudLinkFault,
    ::testing::Values(
        Fault{"Socket", Point::StreamSocket, EMFILE, 1, 1, kLink, "OpenSocket", "socket fail"},
        Fault{"Socket", Point::StreamSocket, EMFILE, 1, 3, kLink, "HeartBeat", "OpenSocket fail"},
        Fault{"Setsockopt", Point::ReuseAddress, ENOMEM, 1, 1, kLink, "OpenSocket",
              "setsockopt fail"},
        Fault{"Fcntl", Point::StatusFlags, EBADF, 1, 1, kLink, "OpenSocket", "fcntl fail"},
        Fault{"Fcntl", Point::StatusFlags, EBADF, 2, 1, kLink, "OpenSocket", "fcntl fail"},
        // Retried every second.
        Fault{"Connect", Point::Connect, ENETUNREACH, 1, 4},
        // Two calls every second: the first only says that the attempt before was refused.
        Fault{"ConnectAborted", Point::Connect, ECONNABORTED, 1, 14},
        Fault{"Send", Point::Send, EPIPE, 1, 1, kLink, "HeartBeat", "SendMessage fail"},
        Fault{"Send", Point::Send, EPIPE, 2, 1, kLink, "HeartBeat", "SendMessage fail"},
        Fault{"Recv", Point::Receive, ECONNRESET, 1, 1, kLink, "HeartBeat", "RecvMessage fail"},
        Fault{"Recv", Point::Receive, ECONNRESET, 2, 1, kLink, "HeartBeat", "RecvMessage fail"}),
    NameOf);

/// Faults of the times that the cloud link records.
using CloudLinkTimesFault = CloudLinkFault;

TEST_P(CloudLinkTimesFault, IsLoggedAndLinkContinues)
{
    std::atomic<bool> isInjected = false;
    server_.SetAnswer([&](const std::string &request) {
        // From the registration on.
        if (!isInjected.exchange(true))
            Inject(GetParam());
        return server_.GoodAnswer(request);
    });
    StartAgent();
    ASSERT_TRUE(WaitForRequests("HeartBeat?", 2));
    ExpectFailed(GetParam());
    ExpectMessage(GetParam());
    EXPECT_EQ(panel_.Value("SELECT IFNULL(StartTime, 0) = 0 FROM Cloud"), "1");
    EXPECT_EQ(panel_.Value("SELECT IFNULL(CheckTime, 0) = 0 FROM Cloud"), "0");
    EXPECT_EQ(agent_->End(), 0);
    server_.SetAnswer([](const std::string &) { return simulator::Reply(); });
}

INSTANTIATE_TEST_SUITE_P(Call, CloudLinkTimesFault,
                         ::testing::Values(Fault{"SqliteOpen", Point::OpenDatabase, kCannotOpen, 1,
                                                 1, kConfig, "SetCommTime", kNoDatabase},
                                           Fault{"SqliteExec", Point::ExecuteStatement,
                                                 kInputOutput, 1, 1, kConfig, "SetCommTime",
                                                 "sqlite3_exec fail"}),
                         NameOf);

/// Faults of the handshake of a session that the cloud server has ordered.
using RelayHandshakeFault = CloudLinkFault;

TEST_P(RelayHandshakeFault, FailsSessionButKeepsLink)
{
    StartAgent();
    // After the report of the port, all exchanges are heartbeats.
    ASSERT_TRUE(WaitForRequests("SetDeviceInfo?", 2));
    ASSERT_TRUE(WaitUntil([this] { return HasOpenedAll(); }));
    std::atomic<bool> isInjected = false;
    server_.SetAnswer([&](const std::string &request) {
        if (!isInjected.exchange(true)) {
            server_.Queue({2, "127.0.0.1", 9510, 77});
            // This heartbeat has been sent: the handshake is sent next.
            Inject(GetParam());
        }
        return server_.GoodAnswer(request);
    });
    ASSERT_TRUE(WaitForRequests("HeartBeat?", server_.Count("HeartBeat?") + 3));
    EXPECT_EQ(faults_.Failed(GetParam().At), GetParam().Number);
    ExpectMessage(GetParam());
    EXPECT_EQ(server_.Count("RelayDevice?"), 0U);
    EXPECT_EQ(agent_->CountInLog("Client Count"), 0U);
    EXPECT_EQ(agent_->CountInLog("Heartbeat fail"), 0U);
    EXPECT_TRUE(WaitUntil([this] { return HasOpenedAll(); })) << agent_->Descriptors();
    EXPECT_EQ(agent_->End(), 0);
    server_.SetAnswer([](const std::string &) { return simulator::Reply(); });
}

INSTANTIATE_TEST_SUITE_P(Call, RelayHandshakeFault,
                         ::testing::Values(Fault{"Send", Point::Send, EPIPE, 1, 1, kLink,
                                                 "MakeSession", "SendMessage fail"}),
                         NameOf);

/// Faults at the end of a start, after its link has started.
using StartFaultAfterLink = CloudLinkFault;

TEST_P(StartFaultAfterLink, LeavesOneLink)
{
    server_.SetAnswer([](const std::string &) { return simulator::Reply(); });
    // The link has started before the failure. It still waits for its answer when the start is
    // retried, so that retry fails too.
    faults_.Delay(GetParam().At, milliseconds(500));
    Inject(GetParam());
    StartAgent();
    ExpectFailed(GetParam());
    ExpectMessage(GetParam());
    ASSERT_TRUE(WaitForRequests("SetDeviceInfo?", 2));
    EXPECT_GE(agent_->CountMessages(kLink, "Start", "earlier thread still running"), 1U);
    // Main, accept, reaper, the link and discovery.
    EXPECT_TRUE(WaitUntil([this] { return agent_->Threads() == 5; })) << agent_->Threads();
    ExpectFullService();
}

INSTANTIATE_TEST_SUITE_P(Call, StartFaultAfterLink,
                         ::testing::Values(Fault{"PthreadCreate", Point::CreateThread, EAGAIN, 4, 1,
                                                 kScan, "Start", kNoThread}),
                         NameOf);

} // namespace
} // namespace nimbra::test
