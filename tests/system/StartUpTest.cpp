// The process of the agent: its banner, its reaction to signals in each state, and the standard
// descriptors that it starts with.

#include "simulator/cloud/CloudServer.h"
#include "support/Agent.h"
#include "support/DiscoveryProbe.h"
#include "support/Files.h"
#include "support/Limits.h"
#include "support/ManagementClient.h"
#include "support/Matchers.h"
#include "support/Program.h"
#include "support/TestPanel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <sys/ioctl.h>
#include <sys/socket.h>

namespace nimbra::test {

namespace fs = std::filesystem;

namespace {

using ::testing::AnyOf;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr char kRule[] = "----------------------------------------";
constexpr char kVersion[] = " 5.00-05h";

Agent::Options RunByShell(const std::string &script)
{
    Agent::Options options;
    options.Wrapper = {"sh", "-c", script};
    return options;
}

Agent::Options WithoutWaiting(Agent::Options options = {})
{
    options.WaitUntilServing = false;
    return options;
}

/// The program name that the agent was started with.
std::string ProgramName(const Agent &agent)
{
    const std::string words = ReadFile("/proc/" + std::to_string(agent.Pid()) + "/cmdline");
    return words.substr(0, words.find('\0'));
}

/// A script that signals that it runs and waits for the test.
constexpr char kWaitForTest[] = "touch /nimbra/var/runs\n"
                                "while [ ! -e /nimbra/var/go ]; do sleep 0.05; done\n";

bool WaitForFile(const fs::path &path)
{
    return WaitUntil([&] { return fs::exists(path); });
}

/// Lets ifconfig wait for the test before it prints.
void PauseIfconfig(const TestPanel &panel)
{
    const std::string ifconfig = ReadFile(panel.Paths().Ifconfig);
    ReplaceProgram(panel.Paths().Ifconfig,
                   std::string(kWaitForTest) + ifconfig.substr(ifconfig.find('\n') + 1));
}

/// Prevents opening the main database until it is restored.
class HiddenDatabase
{
public:
    explicit HiddenDatabase(const TestPanel &panel) : path_(panel.Paths().MainDatabase)
    {
        fs::rename(path_, kept_);
        fs::create_directory(path_);
    }
    void Restore() const
    {
        fs::remove(path_);
        fs::rename(kept_, path_);
    }

private:
    fs::path path_;
    fs::path kept_ = path_.string() + ".kept";
};

bool WaitForFailedAttempt(Agent &agent, std::size_t count = 1)
{
    return agent.WaitForMessage("ConfigManager.cpp", "ReadServerInfo", "sqlite3_open fail", count);
}

/// The signals of one of the masks in /proc/<pid>/status.
std::uint64_t SignalMask(const Agent &agent, const std::string &name)
{
    std::istringstream status(ReadFile("/proc/" + std::to_string(agent.Pid()) + "/status"));
    std::string line;
    while (std::getline(status, line))
        if (line.starts_with(name + ":"))
            return std::stoull(line.substr(name.size() + 1), nullptr, 16);
    return 0;
}

bool HoldsSignal(std::uint64_t mask, int signal)
{
    return (mask >> (signal - 1) & 1) != 0;
}

/// The children of the agent, including zombies.
std::string Children(const Agent &agent)
{
    std::string children;
    for (const auto &task :
         fs::directory_iterator("/proc/" + std::to_string(agent.Pid()) + "/task")) {
        EXPECT_TRUE(fs::exists(task.path() / "children"));
        children += ReadFile(task.path() / "children");
    }
    return children;
}

/// A client with a small receive window that requests a long list and does not read it.
class IdleReader
{
public:
    IdleReader() : client_(LoggedIn())
    {
        const int size = 4096;
        setsockopt(client_.Socket(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        client_.SendLine("GetEventLogEx?Limit=100000");
    }

    /// Waits until the agent has sent all that fits and is blocked.
    [[nodiscard]] bool WaitUntilFull() const
    {
        int last = 0;
        Stopwatch sinceChange;
        return WaitUntil([&] {
            int unread = 0;
            ioctl(client_.Socket(), FIONREAD, &unread);
            if (unread != last)
                sinceChange = Stopwatch();
            last = unread;
            return unread > 0 && sinceChange.Seconds() > 1;
        });
    }

private:
    ManagementClient client_;
};

} // namespace

TEST(Banner, IsEmptyLineAndNameAndVersionBetweenRules)
{
    const TestPanel panel;
    Agent agent;
    const std::vector<std::string> log = agent.Log();
    ASSERT_GE(log.size(), 4U);
    EXPECT_EQ(log[0], "");
    EXPECT_EQ(log[1], kRule);
    EXPECT_EQ(log[2], ProgramName(agent) + kVersion);
    EXPECT_EQ(log[3], kRule);
}

TEST(Banner, ShowsNameOfProgramAsStarted)
{
    const TestPanel panel;
    Agent::Options options;
    options.Wrapper = {"bash", "-c", "exec -a 'the panel agent' \"$0\""};
    Agent agent(options);
    EXPECT_EQ(agent.CountInLog("the panel agent"), 1U);
    EXPECT_EQ(agent.Log().at(2), std::string("the panel agent") + kVersion);
}

TEST(Banner, IsPrintedOnceWhenStartIsRetried)
{
    const TestPanel panel;
    const HiddenDatabase hidden(panel);
    Agent agent(WithoutWaiting());
    ASSERT_TRUE(WaitForFailedAttempt(agent, 3));
    EXPECT_EQ(agent.CountInLog(kVersion), 1U);
    EXPECT_EQ(agent.CountInLog(kRule), 2U);
    hidden.Restore();
    ASSERT_TRUE(agent.WaitForLog(", Port: 9000"));
    EXPECT_EQ(agent.CountInLog(kVersion), 1U);
    EXPECT_EQ(agent.CountInLog(kRule), 2U);
}

TEST(CommandLine, IsIgnored)
{
    const TestPanel panel;
    Agent agent(RunByShell("exec \"$0\" --help -x 9001 '' /dev/null"));
    EXPECT_EQ(agent.Log().at(2), ProgramName(agent) + kVersion);
    EXPECT_THAT(ManagementClient().Ask("Hello?"), IsGreeting());
    EXPECT_EQ(agent.End(), 0);
}

TEST(Output, IsLineBufferedInPipe)
{
    const TestPanel panel;
    const HiddenDatabase hidden(panel);
    Agent agent(WithoutWaiting());
    // The output is too short to fill a buffer: only line buffering makes it visible.
    EXPECT_TRUE(agent.WaitForLog(kVersion));
    EXPECT_TRUE(WaitForFailedAttempt(agent));
    hidden.Restore();
    EXPECT_TRUE(agent.WaitForLog("PrivatePort=9000"));
    EXPECT_TRUE(agent.WaitForLog(", Port: 9000"));
    const ManagementClient client;
    EXPECT_TRUE(agent.WaitForLog("Client Count: 1"));
    EXPECT_TRUE(agent.IsRunning());
}

/// Standard descriptors that are closed or unusable at start.
struct Redirection
{
    const char *Name;
    const char *Shell; ///< the redirections in the shell
};

std::ostream &operator<<(std::ostream &stream, const Redirection &redirection)
{
    return stream << redirection.Shell;
}

class StandardDescriptors : public ::testing::TestWithParam<Redirection>
{};

TEST_P(StandardDescriptors, DoesNotChangeService)
{
    const TestPanel panel;
    Agent agent(WithoutWaiting(RunByShell(std::string("exec \"$0\" ") + GetParam().Shell)));
    ManagementClient client = LoggedIn();
    EXPECT_EQ(client.Ask("GetDoorInfo?DoorNo=1"), "GetDoorInfoResponse?Result=0&DoorNo=1&Name=" +
                                                      panel::ExpectedDoor(1).Name + "&Status=0");
    // A log line must not be written to a socket or database with a standard number.
    client.SendLine("NoSuchCommand?");
    EXPECT_EQ(client.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
    for (const char *number : {"0", "1", "2"}) {
        const fs::path descriptor =
            "/proc/" + std::to_string(agent.Pid()) + "/fd/" + std::string(number);
        const std::string target = fs::read_symlink(descriptor);
        EXPECT_THAT(target, AnyOf(StartsWith("/dev/"), StartsWith("pipe:"))) << number;
    }
    EXPECT_THAT(panel.Calls(), SizeIs(1));
    EXPECT_EQ(agent.End(), 0);
}

INSTANTIATE_TEST_SUITE_P(Each, StandardDescriptors,
                         ::testing::Values(Redirection{"NoInput", "</dev/null 0<&-"},
                                           Redirection{"NoOutput", "</dev/null >&-"},
                                           Redirection{"NoErrorOutput", "</dev/null 2>&-"},
                                           Redirection{"NoDescriptors", "<&- >&- 2>&-"},
                                           Redirection{"FullOutput", "</dev/null >/dev/full"}),
                         [](const auto &test) { return test.param.Name; });

struct NamedSignal
{
    const char *Name;
    int Number;
};

std::ostream &operator<<(std::ostream &stream, const NamedSignal &signal)
{
    return stream << signal.Number;
}

class QuitSignal : public ::testing::TestWithParam<NamedSignal>
{};

INSTANTIATE_TEST_SUITE_P(Each, QuitSignal,
                         ::testing::Values(NamedSignal{"SIGINT", SIGINT},
                                           NamedSignal{"SIGQUIT", SIGQUIT},
                                           NamedSignal{"SIGTERM", SIGTERM}),
                         [](const auto &test) { return test.param.Name; });

TEST_P(QuitSignal, EndsAgentWhileDatabaseIsMissing)
{
    const TestPanel panel;
    const HiddenDatabase hidden(panel);
    Agent agent(WithoutWaiting());
    ASSERT_TRUE(WaitForFailedAttempt(agent));
    const Stopwatch watch;
    agent.Signal(GetParam().Number);
    EXPECT_EQ(agent.WaitForExit(), 0);
    EXPECT_LT(watch.Seconds(), 8);
    EXPECT_EQ(agent.CountInLog(", Port: 9000"), 0U);
}

TEST_P(QuitSignal, EndsAgentAfterConfigurationIsLoaded)
{
    const TestPanel panel;
    PauseIfconfig(panel);
    Agent agent(WithoutWaiting());
    ASSERT_TRUE(WaitForFile("/nimbra/var/runs"));
    agent.Signal(GetParam().Number);
    WriteFile("/nimbra/var/go", "");
    EXPECT_EQ(agent.WaitForExit(), 0);
    EXPECT_EQ(agent.CountInLog("CloudEnable=0"), 1U);
    EXPECT_EQ(agent.CountInLog("fail"), 0U);
}

TEST_P(QuitSignal, EndsIdleAgent)
{
    const TestPanel panel;
    Agent agent;
    const Stopwatch watch;
    agent.Signal(GetParam().Number);
    EXPECT_EQ(agent.WaitForExit(), 0);
    EXPECT_LT(watch.Seconds(), 6);
}

TEST_P(QuitSignal, EndsAgentWithOpenSessions)
{
    const TestPanel panel;
    Agent agent;
    ManagementClient silent;
    ManagementClient halfWay;
    ManagementClient loggedIn = LoggedIn();
    halfWay.Send("GetDoor");
    ASSERT_TRUE(agent.WaitForLog("Client Count: 3"));
    const Stopwatch watch;
    agent.Signal(GetParam().Number);
    EXPECT_EQ(agent.WaitForExit(), 0);
    EXPECT_LT(watch.Seconds(), 12);
    for (ManagementClient *client : {&silent, &halfWay, &loggedIn})
        EXPECT_TRUE(client->IsClosedByPeer());
    // The end of a session at shutdown is not logged.
    EXPECT_EQ(agent.CountInLog("Client Count: "), 3U);
}

TEST(Shutdown, EndsManySessionsTogether)
{
    const TestPanel panel;
    Agent agent;
    const std::vector<ManagementClient> clients(20);
    ASSERT_TRUE(agent.WaitForLog("Client Count: 20"));
    const Stopwatch watch;
    EXPECT_EQ(agent.End(), 0);
    EXPECT_LT(watch.Seconds(), 15);
}

TEST(Shutdown, MayRepeatWhileAgentEnds)
{
    const TestPanel panel;
    Agent agent;
    const ManagementClient client;
    ASSERT_TRUE(agent.WaitForLog("Client Count: 1"));
    EXPECT_TRUE(WaitUntil([&] {
        for (const int signal : {SIGTERM, SIGINT, SIGQUIT})
            agent.Signal(signal);
        return !agent.IsRunning();
    }));
    EXPECT_EQ(agent.WaitForExit(), 0);
}

TEST(Shutdown, EndsAgentDuringUnreadList)
{
    panel::PanelSize size;
    size.Events = 100000;
    const TestPanel panel(size);
    Agent agent;
    const IdleReader reader;
    ASSERT_TRUE(reader.WaitUntilFull());
    const Stopwatch watch;
    EXPECT_EQ(agent.End(), 0);
    EXPECT_LT(watch.Seconds(), 12);
}

TEST(Shutdown, LetsDoorCommandFinish)
{
    const TestPanel panel;
    Agent agent;
    ManagementClient client = LoggedIn();
    const std::size_t before = panel.Calls().size();
    client.SendLine("SetDoorLock?Port=3&Control=0");
    ASSERT_TRUE(WaitUntil([&] { return panel.Calls().size() > before; }));
    // The session now pauses for a second.
    const Stopwatch watch;
    EXPECT_EQ(agent.End(), 0);
    EXPECT_LT(watch.Seconds(), 12);
    EXPECT_EQ(client.ReadLine(), "SetDoorLockResponse?Result=0");
    const std::vector<panel::Call> calls = panel.Calls(before);
    ASSERT_THAT(calls, SizeIs(2));
    EXPECT_EQ(calls[0], (panel::Call{"door", "3", "locked"}));
    EXPECT_EQ(calls[1], AuditCall(11213));
    EXPECT_TRUE(client.IsClosedByPeer());
}

TEST(Shutdown, WaitsForSlowCommandTool)
{
    const TestPanel panel;
    Agent agent;
    ManagementClient client = LoggedIn();
    ReplaceProgram(panel.Paths().CommandTool, kWaitForTest);
    client.SendLine("SetAuxOutput?Port=1&Control=1");
    ASSERT_TRUE(WaitForFile("/nimbra/var/runs"));
    agent.Signal(SIGTERM);
    EXPECT_EQ(agent.WaitForExit(seconds(4)), std::nullopt);
    WriteFile("/nimbra/var/go", "");
    EXPECT_EQ(agent.WaitForExit(), 0);
    EXPECT_EQ(client.ReadLine(), "SetAuxOutputResponse?Result=0");
}

TEST(Shutdown, EndsLinkAndDiscoveryWhileSessionIsBusy)
{
    const TestPanel panel({}, TestPanel::Cloud::Enabled);
    NameHost("127.0.0.1", "cloud.nimbra.example");
    const simulator::CloudServer server;
    Agent agent;
    const DiscoveryProbe probe;
    ASSERT_TRUE(WaitUntil([&] { return server.Count("HeartBeat?") > 0; }));
    ASSERT_NE(probe.Ask("Scan?Key=1"), "(no answer)");
    ManagementClient client = LoggedIn();
    ReplaceProgram(panel.Paths().CommandTool, kWaitForTest);
    client.SendLine("SetAuxOutput?Port=1&Control=1");
    ASSERT_TRUE(WaitForFile("/nimbra/var/runs"));
    agent.Signal(SIGTERM);
    const auto isSilent = [&probe] {
        probe.Send("Scan?Key=2");
        return !probe.Receive(milliseconds(1500));
    };
    EXPECT_TRUE(WaitUntil(isSilent));
    const std::size_t heartbeats = server.Count("HeartBeat?");
    std::this_thread::sleep_for(seconds(5));
    EXPECT_EQ(server.Count("HeartBeat?"), heartbeats);
    EXPECT_TRUE(isSilent());
    EXPECT_FALSE(IsDiscoveryOpen());
    EXPECT_TRUE(agent.IsRunning());
    WriteFile("/nimbra/var/go", "");
    EXPECT_EQ(agent.WaitForExit(), 0);
}

TEST(OtherSignals, AreIgnored)
{
    const TestPanel panel;
    Agent agent;
    ManagementClient client = LoggedIn();
    // Another thread logs this.
    ASSERT_TRUE(agent.WaitForLog("Client Count: 1"));
    const std::vector<std::string> before = agent.Log();
    const std::uint64_t ignored = SignalMask(agent, "SigIgn");
    for (const int signal : {SIGCHLD, SIGPIPE, SIGABRT, SIGUSR1, SIGUSR2}) {
        EXPECT_TRUE(HoldsSignal(ignored, signal)) << signal;
        for (int i = 0; i < 10; ++i)
            agent.Signal(signal);
        EXPECT_EQ(client.Ask("Heartbeat?"), "HeartbeatResponse?Result=0") << signal;
    }
    EXPECT_TRUE(agent.IsRunning());
    EXPECT_EQ(agent.Log(), before);
}

TEST(OtherSignals, AreIgnoredWhileDatabaseIsMissing)
{
    const TestPanel panel;
    const HiddenDatabase hidden(panel);
    Agent agent(WithoutWaiting());
    ASSERT_TRUE(WaitForFailedAttempt(agent));
    const Stopwatch watch;
    for (const int signal : {SIGCHLD, SIGPIPE, SIGABRT, SIGUSR1, SIGUSR2})
        agent.Signal(signal);
    ASSERT_TRUE(WaitForFailedAttempt(agent, 2));
    // They do not shorten the pause either. The first attempt is seen a moment after it is made.
    EXPECT_GT(watch.Seconds(), 2);
}

TEST(Children, LeaveNoZombies)
{
    const TestPanel panel;
    Agent agent;
    ManagementClient client = LoggedIn();
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(client.Ask("SetAuxOutput?Port=1&Control=1"), "SetAuxOutputResponse?Result=0");
    EXPECT_THAT(panel.Calls(), SizeIs(11));
    EXPECT_EQ(Children(agent), "");
}

TEST(Start, IsRetriedWhenThreadCannotBeCreated)
{
    const TestPanel panel;
    PauseIfconfig(panel);
    Agent agent(WithoutWaiting(AsBoundUser()));
    ASSERT_TRUE(WaitForFile("/nimbra/var/runs"));
    {
        // The first attempt has started everything else that it needs.
        const SoftLimit limit(agent, "nproc", 1);
        WriteFile("/nimbra/var/go", "");
        ASSERT_TRUE(agent.WaitForMessage("ClientManager.cpp", "Start", "pthread_create fail"));
    }
    ASSERT_TRUE(agent.WaitForLog(", Port: 9000"));
    EXPECT_THAT(ManagementClient().Ask("Hello?"), IsGreeting());
    // The configuration was loaded again, the banner was not printed again.
    EXPECT_EQ(agent.CountInLog("CloudEnable=0"), 2U);
    EXPECT_EQ(agent.CountInLog(kVersion), 1U);
    EXPECT_EQ(agent.End(), 0);
}

} // namespace nimbra::test
