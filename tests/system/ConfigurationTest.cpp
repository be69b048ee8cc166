// The configuration that the agent loads at start: the identity from the wired interface, the cloud
// settings and the model from the databases; and the wait for missing requirements.

#include "simulator/panel/Sqlite.h"
#include "support/Agent.h"
#include "support/Files.h"
#include "support/ManagementClient.h"
#include "support/Matchers.h"
#include "support/TestPanel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <iterator>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace nimbra::test {

namespace fs = std::filesystem;

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kSource[] = "ConfigManager.cpp";
constexpr char kMain[] = "/tmp/NimbraDB/Nimbra.db";
constexpr char kNetwork[] = "/tmp/NimbraDB/Network.db";
constexpr char kIfconfig[] = "/nimbra/bin/ifconfig";
constexpr char kIfconfigLog[] = "/nimbra/var/ifconfig.log";
constexpr char kLastLine[] = "PrivatePort=";

/// The configuration printed for the sample panel.
const std::vector<std::string> &SampleDump()
{
    static const std::vector<std::string> lines = {
        "CloudEnable=0",
        "CloudServerAddr=cloud.nimbra.example",
        "CloudServerPort=9500",
        "DeviceId=7EEA0B498F9CC0F7FC6B3EFF0AAB3FA973A5E491",
        "MacAddr=00:1A:2B:3C:4D:5E",
        "ModelName=Dogwood 64",
        "PrivateAddr=192.168.77.10",
        "PrivatePort=9000",
    };
    return lines;
}

Agent::Options WithoutWaiting()
{
    Agent::Options options;
    options.WaitUntilServing = false;
    return options;
}

/// Replaces the panel's ifconfig atomically by a script that logs the time and arguments of each
/// call and prints `output`, in which the escapes of printf apply.
void SetIfconfig(const std::string &output)
{
    const std::string fresh = std::string(kIfconfig) + ".new";
    WriteFile(fresh, "#!/bin/sh\nread -r now rest </proc/uptime\necho \"$now $*\" >>" +
                         std::string(kIfconfigLog) + "\nprintf '%b' '" + output + "'\n");
    fs::permissions(fresh, fs::perms(0755));
    fs::rename(fresh, kIfconfig);
}

std::string InterfaceWith(const std::string &mac)
{
    return "eth0      Link encap:Ethernet  HWaddr " + mac +
           "  \\n          inet addr:192.168.77.10  Bcast:192.168.77.255\\n";
}

struct IfconfigCall
{
    double Time; ///< seconds since the machine was started
    std::string Arguments;
};

std::vector<IfconfigCall> IfconfigCalls()
{
    std::vector<IfconfigCall> calls;
    std::istringstream log(ReadFile(kIfconfigLog));
    IfconfigCall call;
    while (log >> call.Time && log.get() == ' ' && std::getline(log, call.Arguments))
        calls.push_back(call);
    return calls;
}

/// How often the agent has tried to load: the calls of ifconfig, and the shell's messages when it
/// cannot be run.
std::size_t Attempts(Agent &agent)
{
    return IfconfigCalls().size() + agent.CountInLog(std::string(kIfconfig) + ":");
}

/// Starts an agent, returns the configuration that it prints, and ends it.
std::vector<std::string> LoadedNow()
{
    Agent agent(WithoutWaiting());
    EXPECT_TRUE(agent.WaitForLog(kLastLine));
    const std::vector<std::string> &log = agent.Log();
    const auto first = std::find_if(log.begin(), log.end(), [](const std::string &line) {
        return line.starts_with("CloudEnable=");
    });
    std::vector<std::string> dump;
    std::copy_n(first, std::min<std::ptrdiff_t>(8, log.end() - first), std::back_inserter(dump));
    return dump;
}

/// SHA-1 as 40 upper-case hexadecimal digits.
std::string Sha1(const std::string &text)
{
    std::array<unsigned char, SHA_DIGEST_LENGTH> digest{};
    SHA1(reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest.data());
    std::string digits;
    for (const unsigned char byte : digest) {
        std::array<char, 3> pair{};
        std::snprintf(pair.data(), pair.size(), "%02X", byte);
        digits += pair.data();
    }
    return digits;
}

/// A requirement of the start, and the message that is logged at each attempt without it.
struct Requirement
{
    const char *Name;
    std::function<void()> Remove;
    std::function<void()> Restore;
    std::string Method = {}; ///< empty if nothing is logged
    std::string Message = {};
};

std::ostream &operator<<(std::ostream &stream, const Requirement &requirement)
{
    return stream << requirement.Name;
}

std::function<void()> Rename(const std::string &from, const std::string &to)
{
    return [from, to] { fs::rename(from, to); };
}

void RestoreInterface()
{
    SetIfconfig(InterfaceWith(panel::kMacAddress));
}

/// One whose absence is logged and one whose absence is not. The unit tests of ConfigManager have
/// all.
std::vector<Requirement> Requirements()
{
    return {
        {"MainDatabase", Rename(kMain, std::string(kMain) + ".kept"),
         Rename(std::string(kMain) + ".kept", kMain), "ReadServerInfo", "sqlite3_exec fail[1]"},
        {"IfconfigProgram", [] { fs::remove(kIfconfig); }, RestoreInterface},
    };
}

class MissingRequirement : public ::testing::TestWithParam<Requirement>
{};

} // namespace

INSTANTIATE_TEST_SUITE_P(Each, MissingRequirement, ::testing::ValuesIn(Requirements()),
                         [](const auto &test) { return test.param.Name; });

TEST_P(MissingRequirement, IsRetriedEvery3SecondsUntilPresent)
{
    const Requirement &requirement = GetParam();
    const TestPanel panel;
    RestoreInterface();
    requirement.Remove();
    Agent agent(WithoutWaiting());
    ASSERT_TRUE(WaitUntil([&] { return Attempts(agent) >= 1; }));
    const Stopwatch watch;
    ASSERT_TRUE(WaitUntil([&] { return Attempts(agent) >= 2; }));
    // The first attempt is seen a moment after it is made.
    EXPECT_GT(watch.Seconds(), 2);
    // Some requirements are restored in several steps, which must not happen during an attempt.
    const std::size_t logged = requirement.Method.empty() ? 0 : 2;
    ASSERT_TRUE(agent.WaitForMessage(kSource, requirement.Method, requirement.Message, logged));
    EXPECT_EQ(agent.CountInLog("CloudEnable="), 0U);
    EXPECT_EQ(agent.CountInLog("Socket: "), 0U);
    EXPECT_TRUE(agent.IsRunning());

    requirement.Restore();
    ASSERT_TRUE(agent.WaitForLog(", Port: 9000"));
    const std::vector<std::string> &log = agent.Log();
    const auto first = std::find(log.begin(), log.end(), SampleDump()[0]);
    ASSERT_GE(log.end() - first, 8);
    EXPECT_EQ(std::vector<std::string>(first, first + 8), SampleDump());
    EXPECT_EQ(agent.CountInLog("CloudEnable="), 1U);

    const std::size_t failures = requirement.Method.empty() ? 0 : Attempts(agent) - 1;
    EXPECT_EQ(agent.CountInLog("DEBUG: "), failures);
    EXPECT_EQ(agent.CountMessages(kSource, requirement.Method, requirement.Message), failures);
    const std::vector<IfconfigCall> calls = IfconfigCalls();
    for (std::size_t i = 1; i < calls.size(); ++i) {
        // The uptime has a resolution of a hundredth of a second.
        EXPECT_GE(calls[i].Time - calls[i - 1].Time, 2.98);
        EXPECT_LE(calls[i].Time - calls[i - 1].Time, 9);
    }
}

TEST(Configuration, IsPrintedAfterBanner)
{
    const TestPanel panel;
    RestoreInterface();
    Agent agent;
    const std::vector<std::string> log = agent.Log();
    ASSERT_GE(log.size(), 12U);
    EXPECT_EQ(std::vector<std::string>(log.begin() + 4, log.begin() + 12), SampleDump());
    EXPECT_EQ(agent.CountInLog("DEBUG: "), 0U);
}

TEST(Configuration, WaitsForLockedDatabaseAndThenRetries)
{
    const TestPanel panel;
    RestoreInterface();
    panel::SqliteFile lock(kMain);
    lock.Run("BEGIN EXCLUSIVE");
    Agent agent(WithoutWaiting());
    ASSERT_TRUE(WaitUntil([&] { return Attempts(agent) == 1; }));
    const Stopwatch watch;
    ASSERT_TRUE(agent.WaitForMessage(kSource, "ReadServerInfo", "sqlite3_exec fail[5]"));
    // Three seconds of waiting; the first attempt is seen a moment after it starts.
    EXPECT_GT(watch.Seconds(), 2);
    ASSERT_TRUE(WaitUntil([&] { return Attempts(agent) == 2; }));
    lock.Run("COMMIT");
    // The lock is released while the agent waits for it.
    ASSERT_TRUE(agent.WaitForLog(", Port: 9000"));
    EXPECT_EQ(agent.CountInLog("DEBUG: "), 1U);
}

TEST(Configuration, IsLoadedCompletelyAtEachAttempt)
{
    const TestPanel panel;
    RestoreInterface();
    TestPanel::Run(kNetwork, "CREATE TABLE Kept AS SELECT * FROM Network; DELETE FROM Network");
    Agent agent(WithoutWaiting());
    ASSERT_TRUE(WaitUntil([&] { return !panel.Value("SELECT DeviceID FROM Cloud").empty(); }));
    EXPECT_EQ("DeviceId=" + panel.Value("SELECT DeviceID FROM Cloud"), SampleDump()[3]);

    SetIfconfig(InterfaceWith("aa:bb:cc:dd:ee:ff"));
    panel.Run("UPDATE Cloud SET Enabled=1, DevicePort=1234");
    const std::string identity = Sha1("AA:BB:CC:DD:EE:FF");
    EXPECT_TRUE(WaitUntil([&] { return panel.Value("SELECT DeviceID FROM Cloud") == identity; }));
    TestPanel::Run(kNetwork, "UPDATE Kept SET IPAddress='10.1.2.3', Model=1, Type=4;"
                             "INSERT INTO Network SELECT * FROM Kept");
    ASSERT_TRUE(agent.WaitForLog(kLastLine));
    for (const std::string &line :
         {std::string("CloudEnable=1"), "DeviceId=" + identity,
          std::string("MacAddr=AA:BB:CC:DD:EE:FF"), std::string("ModelName=Alder 4"),
          std::string("PrivateAddr=10.1.2.3"), std::string("PrivatePort=1234")})
        EXPECT_EQ(agent.CountInLog(line), 1U) << line;
}

TEST(Configuration, DoesNotChangeWhileAgentRuns)
{
    const TestPanel panel;
    RestoreInterface();
    Agent agent;
    panel.Run("UPDATE Cloud SET Enabled=1, DevicePort=1234, DeviceID='changed'");
    // Longer than the time between two attempts to load it.
    std::this_thread::sleep_for(seconds(4));
    EXPECT_EQ(LoggedIn().Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
    EXPECT_THAT(IfconfigCalls(), SizeIs(1));
    EXPECT_EQ(agent.CountInLog("CloudEnable="), 1U);
    EXPECT_EQ(panel.Value("SELECT DeviceID FROM Cloud"), "changed");
}

TEST(CloudSettings, ReportDevicePortButNotListenerPort)
{
    const TestPanel panel;
    panel.Run("UPDATE Cloud SET DevicePort=8080");
    Agent agent;
    EXPECT_EQ(agent.CountInLog("PrivatePort=8080"), 1U);
    EXPECT_EQ(agent.CountInLog(", Port: 9000"), 1U);
    EXPECT_THAT(ManagementClient().Ask("Hello?"), IsGreeting());
}

TEST(Identity, IsWrittenToEveryRowWithoutOtherChanges)
{
    const TestPanel panel;
    panel.Run("UPDATE Cloud SET ServerIP='10.9.8.7', Port=77, DeviceID='old';"
              "INSERT INTO Cloud (No, Enabled, DevicePort) VALUES (2, 1, 7000)");
    const std::vector<std::string> dump = LoadedNow();
    // The first row is used.
    EXPECT_EQ(dump, SampleDump());
    const std::string identity = SampleDump()[3].substr(SampleDump()[3].find('=') + 1);
    EXPECT_THAT(panel.Rows("SELECT * FROM Cloud"),
                ElementsAre(Row{"1", "0", "10.9.8.7", "77", "9000", identity, "", ""},
                            Row{"2", "1", "", "", "7000", identity, "", ""}));
    EXPECT_THAT(panel.Journal(), IsEmpty());
}

} // namespace nimbra::test
