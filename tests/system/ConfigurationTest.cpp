// What the agent loads when it starts: the identity from the wired interface, the cloud settings
// and the model from the databases; and how it waits for what is missing.

#include "simulator/panel/Sqlite.h"
#include "support/Agent.h"
#include "support/Files.h"
#include "support/ManagementClient.h"
#include "support/TestPanel.h"

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

constexpr char kSource[] = "ConfigManager.cpp";
constexpr char kMain[] = "/tmp/NimbraDB/Nimbra.db";
constexpr char kNetwork[] = "/tmp/NimbraDB/Network.db";
constexpr char kIfconfig[] = "/nimbra/bin/ifconfig";
constexpr char kIfconfigLog[] = "/nimbra/var/ifconfig.log";
constexpr char kLastLine[] = "PrivatePort=";

/// What is printed for the sample panel.
const std::vector<std::string> kSampleDump = {
    "CloudEnable=0",
    "CloudServerAddr=cloud.nimbra.example",
    "CloudServerPort=9500",
    "DeviceId=7EEA0B498F9CC0F7FC6B3EFF0AAB3FA973A5E491",
    "MacAddr=00:1A:2B:3C:4D:5E",
    "ModelName=Dogwood 64",
    "PrivateAddr=192.168.77.10",
    "PrivatePort=9000",
};

Agent::Options WithoutWaiting()
{
    Agent::Options options;
    options.WaitUntilServing = false;
    return options;
}

/// Replaces the panel's ifconfig, at one stroke, by one that notes when and how it is called and
/// then prints `output`, in which printf's escapes count.
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

/// How often the agent has tried to load: calls of ifconfig, and what the shell says when there
/// is none that it can run.
std::size_t Tries(Agent &agent)
{
    return IfconfigCalls().size() + agent.CountInLog(std::string(kIfconfig) + ":");
}

/// The configuration as an agent prints it that is started now, and ended again.
std::vector<std::string> LoadedNow()
{
    Agent agent(WithoutWaiting());
    EXPECT_TRUE(agent.WaitForLog(kLastLine));
    const std::vector<std::string> &log = agent.Log();
    const auto first = std::find_if(log.begin(), log.end(), [](const std::string &line) {
        return line.rfind("CloudEnable=", 0) == 0;
    });
    std::vector<std::string> dump;
    std::copy_n(first, std::min<std::ptrdiff_t>(8, log.end() - first), std::back_inserter(dump));
    return dump;
}

/// The line of one setting, as an agent prints it that is started now.
std::string LoadedNow(const std::string &setting)
{
    for (const std::string &line : LoadedNow())
        if (line.rfind(setting + "=", 0) == 0)
            return line;
    return "(none)";
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

/// Something that the agent needs to start, and what is logged at each try without it.
struct Need
{
    const char *Name;
    std::function<void()> TakeAway;
    std::function<void()> GiveBack;
    std::string Method = {}; ///< nothing is logged when empty
    std::string Message = {};
};

std::ostream &operator<<(std::ostream &stream, const Need &need)
{
    return stream << need.Name;
}

/// A statement on one of the databases, as a step of a test.
std::function<void()> Sql(const char *file, const char *sql)
{
    return [file, sql] { TestPanel::Run(file, sql); };
}

std::function<void()> Rename(const std::string &from, const std::string &to)
{
    return [from, to] { fs::rename(from, to); };
}

/// Puts a directory into the place of a database, which then cannot be opened.
std::function<void()> Block(const std::string &file)
{
    return [file] {
        fs::rename(file, file + ".kept");
        fs::create_directory(file);
    };
}

std::function<void()> Unblock(const std::string &file)
{
    return [file] {
        fs::remove(file);
        fs::rename(file + ".kept", file);
    };
}

std::function<void()> Overwrite(const std::string &file)
{
    return [file] {
        fs::rename(file, file + ".kept");
        WriteFile(file, std::string(4096, '!'));
    };
}

std::function<void()> PutBack(const std::string &file)
{
    return Rename(file + ".kept", file);
}

std::function<void()> Print(const std::string &output)
{
    return [output] { SetIfconfig(output); };
}

void GiveInterface()
{
    SetIfconfig(InterfaceWith(panel::kMacAddress));
}

const std::vector<Need> kNeeds = {
    {"DatabaseDirectory", Rename("/tmp/NimbraDB", "/tmp/NimbraDB.kept"),
     Rename("/tmp/NimbraDB.kept", "/tmp/NimbraDB"), "ReadServerInfo", "sqlite3_open fail"},
    {"MainDatabaseThatOpens", Block(kMain), Unblock(kMain), "ReadServerInfo", "sqlite3_open fail"},
    {"MainDatabaseFile", Rename(kMain, std::string(kMain) + ".kept"), PutBack(kMain),
     "ReadServerInfo", "sqlite3_exec fail[1]"},
    {"MainDatabaseThatIsOne", Overwrite(kMain), PutBack(kMain), "ReadServerInfo",
     "sqlite3_exec fail[26]"},
    {"CloudTable", Sql(kMain, "ALTER TABLE Cloud RENAME TO Kept"),
     Sql(kMain, "ALTER TABLE Kept RENAME TO Cloud"), "ReadServerInfo", "sqlite3_exec fail[1]"},
    {"DeviceIdColumn", Sql(kMain, "ALTER TABLE Cloud RENAME COLUMN DeviceID TO Kept"),
     Sql(kMain, "ALTER TABLE Cloud RENAME COLUMN Kept TO DeviceID"), "ReadServerInfo",
     "sqlite3_exec fail[1]"},
    {"CloudColumn", Sql(kMain, "ALTER TABLE Cloud RENAME COLUMN DevicePort TO Kept"),
     Sql(kMain, "ALTER TABLE Cloud RENAME COLUMN Kept TO DevicePort")},
    {"CloudRow", Sql(kMain, "CREATE TABLE Kept AS SELECT * FROM Cloud; DELETE FROM Cloud"),
     Sql(kMain, "INSERT INTO Cloud SELECT * FROM Kept")},
    {"NetworkDatabaseThatOpens", Block(kNetwork), Unblock(kNetwork), "ReadNetworkInfo",
     "sqlite3_open fail"},
    {"NetworkDatabaseFile", Rename(kNetwork, std::string(kNetwork) + ".kept"), PutBack(kNetwork)},
    {"NetworkDatabaseThatIsOne", Overwrite(kNetwork), PutBack(kNetwork)},
    {"NetworkTable", Sql(kNetwork, "ALTER TABLE Network RENAME TO Kept"),
     Sql(kNetwork, "ALTER TABLE Kept RENAME TO Network")},
    {"NetworkRow", Sql(kNetwork, "CREATE TABLE Kept AS SELECT * FROM Network; DELETE FROM Network"),
     Sql(kNetwork, "INSERT INTO Network SELECT * FROM Kept")},
    {"IfconfigProgram", [] { fs::remove(kIfconfig); }, GiveInterface},
    {"IfconfigThatRuns", [] { fs::permissions(kIfconfig, fs::perms(0644)); }, GiveInterface},
    {"OutputOfIfconfig", Print(""), GiveInterface},
    {"LineWithTheAddress", Print("eth0      Link encap:Ethernet\\n"), GiveInterface},
    {"MarkInItsOwnCase", Print("eth0      hwaddr 00:1a:2b:3c:4d:5e\\n"), GiveInterface},
    {"BlankBehindTheMark", Print("eth0      HWaddr\\n"), GiveInterface},
    {"AddressBehindTheMark", Print("eth0      HWaddr \\n"), GiveInterface},
    {"AddressBehindBlanks", Print("eth0      HWaddr    \\r\\n"), GiveInterface},
    {"AddressWithinALine", Print(std::string(1016, '-') + "HWaddr 00:1a:2b:3c:4d:5e\\n"),
     GiveInterface},
};

class Missing : public ::testing::TestWithParam<Need>
{};

} // namespace

INSTANTIATE_TEST_SUITE_P(Each, Missing, ::testing::ValuesIn(kNeeds),
                         [](const auto &test) { return test.param.Name; });

TEST_P(Missing, IsLookedForEveryThreeSecondsUntilItIsThere)
{
    const Need &need = GetParam();
    const TestPanel panel;
    GiveInterface();
    need.TakeAway();
    Agent agent(WithoutWaiting());
    ASSERT_TRUE(WaitUntil([&] { return Tries(agent) >= 2; }));
    // What is given back in several steps is not given back in the middle of a try.
    const std::size_t logged = need.Method.empty() ? 0 : 2;
    ASSERT_TRUE(agent.WaitForMessage(kSource, need.Method, need.Message, logged));
    EXPECT_EQ(agent.CountInLog("CloudEnable="), 0U);
    EXPECT_EQ(agent.CountInLog("Socket: "), 0U);
    EXPECT_TRUE(agent.IsRunning());

    need.GiveBack();
    ASSERT_TRUE(agent.WaitForLog(", Port: 9000"));
    const std::vector<std::string> &log = agent.Log();
    const auto first = std::find(log.begin(), log.end(), kSampleDump[0]);
    ASSERT_GE(log.end() - first, 8);
    EXPECT_EQ(std::vector<std::string>(first, first + 8), kSampleDump);
    EXPECT_EQ(agent.CountInLog("CloudEnable="), 1U);

    const std::size_t failures = need.Method.empty() ? 0 : Tries(agent) - 1;
    EXPECT_EQ(agent.CountInLog("DEBUG: "), failures);
    EXPECT_EQ(agent.CountMessages(kSource, need.Method, need.Message), failures);
    const std::vector<IfconfigCall> calls = IfconfigCalls();
    for (std::size_t i = 1; i < calls.size(); ++i) {
        // The clock of the machine is read in hundredths of a second.
        EXPECT_GE(calls[i].Time - calls[i - 1].Time, 2.98);
        EXPECT_LE(calls[i].Time - calls[i - 1].Time, 9);
    }
}

TEST(Configuration, IsPrintedRightBehindTheBanner)
{
    const TestPanel panel;
    GiveInterface();
    Agent agent;
    const std::vector<std::string> log = agent.Log();
    ASSERT_GE(log.size(), 12U);
    EXPECT_EQ(std::vector<std::string>(log.begin() + 4, log.begin() + 12), kSampleDump);
    EXPECT_EQ(agent.CountInLog("DEBUG: "), 0U);
}

TEST(Configuration, WaitsForALockedDatabaseAndThenTriesAgain)
{
    const TestPanel panel;
    GiveInterface();
    panel::SqliteFile lock(kMain);
    lock.Run("BEGIN EXCLUSIVE");
    Agent agent(WithoutWaiting());
    ASSERT_TRUE(WaitUntil([&] { return Tries(agent) == 1; }));
    const Stopwatch watch;
    ASSERT_TRUE(agent.WaitForMessage(kSource, "ReadServerInfo", "sqlite3_exec fail[5]"));
    // Three seconds of waiting; the first try was seen a moment after it was made.
    EXPECT_GT(watch.Seconds(), 2);
    ASSERT_TRUE(WaitUntil([&] { return Tries(agent) == 2; }));
    lock.Run("COMMIT");
    // The lock was given up while it was waited for.
    ASSERT_TRUE(agent.WaitForLog(", Port: 9000"));
    EXPECT_EQ(agent.CountInLog("DEBUG: "), 1U);
}

TEST(Configuration, IsLoadedAsAWholeAtEachTry)
{
    const TestPanel panel;
    GiveInterface();
    TestPanel::Run(kNetwork, "CREATE TABLE Kept AS SELECT * FROM Network; DELETE FROM Network");
    Agent agent(WithoutWaiting());
    ASSERT_TRUE(WaitUntil([&] { return panel.Value("SELECT DeviceID FROM Cloud") != ""; }));
    EXPECT_EQ("DeviceId=" + panel.Value("SELECT DeviceID FROM Cloud"), kSampleDump[3]);

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

TEST(Configuration, DoesNotChangeWhileTheAgentRuns)
{
    const TestPanel panel;
    GiveInterface();
    Agent agent;
    panel.Run("UPDATE Cloud SET Enabled=1, DevicePort=1234, DeviceID='changed'");
    EXPECT_EQ(LoggedIn().Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
    EXPECT_EQ(IfconfigCalls().size(), 1U);
    EXPECT_EQ(agent.CountInLog("CloudEnable="), 1U);
    EXPECT_EQ(panel.Value("SELECT DeviceID FROM Cloud"), "changed");
}

TEST(Model, IsNamedByItsNumberAndSize)
{
    const TestPanel panel;
    panel.Run("UPDATE Cloud SET Enabled=1");
    struct Case
    {
        const char *Model;
        const char *Type;
        const char *Name;
    };
    const std::vector<Case> cases = {
        {"1", "4", "Alder 4"},    {"2", "8", "Birch 8"},
        {"3", "16", "Cedar 16"},  {"11", "64", "Dogwood 64"},
        {"1", "0", "Alder 0"},    {"1", "NULL", "Alder 0"},
        {"2", "-2", "Birch -2"},  {"11", "2147483647", "Dogwood 2147483647"},
        {"0", "64", ""},          {"4", "64", ""},
        {"5", "64", ""},          {"6", "64", ""},
        {"7", "64", ""},          {"8", "64", ""},
        {"9", "64", ""},          {"10", "64", ""},
        {"12", "64", ""},         {"-1", "64", ""},
        {"2147483647", "64", ""}, {"NULL", "64", ""},
        {"'Cedar'", "64", ""},
    };
    for (const Case &one : cases) {
        TestPanel::Run(kNetwork,
                       std::string("UPDATE Network SET Model=") + one.Model + ", Type=" + one.Type);
        const std::vector<std::string> dump = LoadedNow();
        ASSERT_EQ(dump.size(), 8U);
        EXPECT_EQ(dump[5], std::string("ModelName=") + one.Name) << one.Model;
        // A panel of unknown model never uses the cloud.
        EXPECT_EQ(dump[0], std::string("CloudEnable=") + (*one.Name != '\0' ? "1" : "0"))
            << one.Model;
    }
}

TEST(CloudSettings, AreEnabledByAnyNumberButZero)
{
    const TestPanel panel;
    struct Case
    {
        const char *Enabled;
        const char *Line;
    };
    for (const Case &one : std::vector<Case>{{"0", "CloudEnable=0"},
                                             {"1", "CloudEnable=1"},
                                             {"2", "CloudEnable=1"},
                                             {"-1", "CloudEnable=1"},
                                             {"NULL", "CloudEnable=0"},
                                             {"'yes'", "CloudEnable=0"}}) {
        panel.Run(std::string("UPDATE Cloud SET Enabled=") + one.Enabled);
        EXPECT_EQ(LoadedNow("CloudEnable"), one.Line) << one.Enabled;
    }
}

TEST(CloudSettings, NameTheFixedServerWhateverTheRowSays)
{
    const TestPanel panel;
    for (const char *row :
         {"ServerIP='10.9.8.7', Port=1", "ServerIP='', Port=0", "ServerIP=NULL, Port=NULL",
          "ServerIP='a-host-name-of-much-more-than-32-bytes.example', Port=-1"}) {
        panel.Run(std::string("UPDATE Cloud SET ") + row);
        const std::vector<std::string> dump = LoadedNow();
        ASSERT_EQ(dump.size(), 8U);
        EXPECT_EQ(dump[1], "CloudServerAddr=cloud.nimbra.example") << row;
        EXPECT_EQ(dump[2], "CloudServerPort=9500") << row;
    }
}

TEST(CloudSettings, GiveTheDevicePortButNotThePortOfTheListener)
{
    const TestPanel panel;
    struct Case
    {
        const char *Port;
        const char *Line;
    };
    for (const Case &one : std::vector<Case>{{"8080", "PrivatePort=8080"},
                                             {"0", "PrivatePort=0"},
                                             {"NULL", "PrivatePort=0"},
                                             {"-5", "PrivatePort=-5"},
                                             {"'81x'", "PrivatePort=81"},
                                             {"4294967297", "PrivatePort=1"}}) {
        panel.Run(std::string("UPDATE Cloud SET DevicePort=") + one.Port);
        EXPECT_EQ(LoadedNow("PrivatePort"), one.Line) << one.Port;
    }
    panel.Run("UPDATE Cloud SET DevicePort=8080");
    Agent agent;
    EXPECT_EQ(agent.CountInLog(", Port: 9000"), 1U);
    EXPECT_EQ(ManagementClient().Ask("Hello?").rfind("HelloResponse?", 0), 0U);
}

TEST(Identity, IsWrittenIntoEveryRowAndNothingElseOfThemIsChanged)
{
    const TestPanel panel;
    panel.Run("UPDATE Cloud SET ServerIP='10.9.8.7', Port=77, DeviceID='old';"
              "INSERT INTO Cloud (No, Enabled, DevicePort) VALUES (2, 1, 7000)");
    const std::vector<std::string> dump = LoadedNow();
    // The first row counts.
    EXPECT_EQ(dump, kSampleDump);
    const std::string identity = kSampleDump[3].substr(kSampleDump[3].find('=') + 1);
    EXPECT_EQ(panel.Rows("SELECT * FROM Cloud"),
              (std::vector<Row>{{"1", "0", "10.9.8.7", "77", "9000", identity, "", ""},
                                {"2", "1", "", "", "7000", identity, "", ""}}));
    EXPECT_EQ(panel.Journal(), std::vector<std::string>());
}

TEST(Identity, IsTheDigestOfTheAddressInUpperCase)
{
    const TestPanel panel;
    struct Case
    {
        const char *Output;
        const char *Address;
    };
    const std::vector<Case> cases = {
        {"eth0 HWaddr 00:1a:2b:3c:4d:5e\\n", "00:1A:2B:3C:4D:5E"},
        {"eth0 HWaddr DE:AD:be:ef:00:01\\n", "DE:AD:BE:EF:00:01"},
        {"eth0 HWaddr fe:dc:ba:98:76:54", "FE:DC:BA:98:76:54"},
        {"eth0 HWaddr 02:00:00:00:00:0a\\r\\n", "02:00:00:00:00:0A"},
        {"eth0 HWaddr   02:00:00:00:00:0b  Mask:255.0.0.0\\n", "02:00:00:00:00:0B"},
        {"HWaddr 02:00:00:00:00:0c\\nHWaddr 02:00:00:00:00:0d\\n", "02:00:00:00:00:0C"},
        {"Link\\nother HWaddr 02-00-00-00-00-0e \\nrest\\n", "02-00-00-00-00-0E"},
        {"eth0 HWaddr not'an\"address;%s\\n", "NOT'AN\"ADDRESS;%S"},
        {"eth0 HWaddr 0123456789abcdef0123456789abcdefXYZ\\n", "0123456789ABCDEF0123456789ABCDEF"},
    };
    for (const Case &one : cases) {
        std::string output = one.Output;
        // A quote within the script's quotes.
        const std::size_t quote = output.find('\'');
        if (quote != std::string::npos)
            output.replace(quote, 1, "'\\''");
        SetIfconfig(output);
        const std::vector<std::string> dump = LoadedNow();
        ASSERT_EQ(dump.size(), 8U) << one.Output;
        EXPECT_EQ(dump[4], std::string("MacAddr=") + one.Address);
        EXPECT_EQ(dump[3], "DeviceId=" + Sha1(one.Address));
        EXPECT_EQ(panel.Value("SELECT DeviceID FROM Cloud"), Sha1(one.Address));
    }
}

TEST(Identity, IsThatOfTheWiredInterface)
{
    const TestPanel panel;
    GiveInterface();
    const Agent agent;
    const std::vector<IfconfigCall> calls = IfconfigCalls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].Arguments, "eth0");
}

TEST(NetworkSettings, MayBeEmptyLongOrInSeveralRows)
{
    const TestPanel panel;
    struct Case
    {
        const char *Sql;
        const char *Line;
    };
    for (const Case &one : std::vector<Case>{
             {"UPDATE Network SET IPAddress='10.0.0.1'", "PrivateAddr=10.0.0.1"},
             {"UPDATE Network SET IPAddress=''", "PrivateAddr="},
             {"UPDATE Network SET IPAddress=NULL, Model=NULL, Type=NULL", "PrivateAddr="},
             {"UPDATE Network SET IPAddress=19216877", "PrivateAddr=19216877"},
             {"UPDATE Network SET IPAddress='32-bytes-long------------------x'",
              "PrivateAddr=32-bytes-long------------------x"},
             {"UPDATE Network SET IPAddress='123456789012345678901234567890123'",
              "PrivateAddr=12345678901234567890123456789012"},
             {"UPDATE Network SET IPAddress='first';"
              "INSERT INTO Network (No, IPAddress) VALUES (9, 'second')",
              "PrivateAddr=first"},
             {"UPDATE Network SET IPAddress='%s%n%d'", "PrivateAddr=%s%n%d"},
         }) {
        TestPanel::Run(kNetwork, one.Sql);
        EXPECT_EQ(LoadedNow("PrivateAddr"), one.Line) << one.Sql;
    }
}

} // namespace nimbra::test
