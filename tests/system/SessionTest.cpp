// A client session: the greeting, the command words, keys and lines that it reads, and when it
// ends.

#include "support/AgentTest.h"
#include "support/Matchers.h"
#include "support/Program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <sys/socket.h>
#include <sys/time.h>

namespace nimbra::test {
namespace {

using ::testing::Optional;

constexpr char kSource[] = "ClientWorker.cpp";

class Session : public AgentTest
{
protected:
    /// How many lines without a command have been logged.
    std::size_t InvalidMessages()
    {
        return agent_.CountMessages(kSource, "Process", "Invalid Message");
    }
};

/// The key of a greeting; -1 if the line is not a greeting.
long KeyOf(const std::string &line)
{
    const std::string lead = "HelloResponse?Result=0&Key=";
    if (!line.starts_with(lead))
        return -1;
    const std::string digits = line.substr(lead.size());
    const bool isNumber = !digits.empty() && digits.size() <= 10 &&
                          std::all_of(digits.begin(), digits.end(),
                                      [](unsigned char digit) { return std::isdigit(digit) != 0; });
    return isNumber ? std::stol(digits) : -1;
}

/// The time of day in microseconds.
std::int64_t Microseconds()
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    return std::int64_t{now.tv_sec} * 1000000 + now.tv_usec;
}

/// Whether the key is the first random number after seeding with the low 32 bits of one of these
/// microseconds.
bool IsDrawnBetween(std::int64_t first, std::int64_t last, long key)
{
    for (std::int64_t time = first; time <= last; ++time) {
        std::srand(static_cast<unsigned>(time));
        if (std::rand() == key)
            return true;
    }
    return false;
}

/// The word of the command that answers a line.
std::string AnsweringWord(ManagementClient &client, const std::string &line)
{
    const std::string header = client.AskList(line)[0];
    return header.substr(0, header.find("Response?Result="));
}

/// The line filled up to `size` bytes, without its line feed.
std::string Filled(const std::string &line, std::size_t size)
{
    return line + std::string(size - line.size(), 'x');
}

// Greeting

TEST_F(Session, GreetingHoldsKeyOf31Bits)
{
    ManagementClient &client = Connect();
    for (int i = 0; i < 50; ++i) {
        const std::string greeting = client.Ask("Hello?");
        const long key = KeyOf(greeting);
        EXPECT_GE(key, 0) << greeting;
        EXPECT_LE(key, 2147483647L) << greeting;
        EXPECT_EQ(greeting, "HelloResponse?Result=0&Key=" + std::to_string(key));
    }
}

TEST_F(Session, EachGreetingHoldsAnotherKey)
{
    ManagementClient &client = Connect();
    std::set<long> keys;
    for (int i = 0; i < 20; ++i)
        keys.insert(KeyOf(client.Ask("Hello?")));
    EXPECT_EQ(keys.size(), 20U);
}

TEST_F(Session, GreetingKeyIsSeededFromTimeOfDay)
{
    ManagementClient &client = Connect();
    for (int i = 0; i < 5; ++i) {
        const std::int64_t before = Microseconds();
        const long key = KeyOf(client.Ask("Hello?"));
        EXPECT_TRUE(IsDrawnBetween(before, Microseconds(), key)) << key;
    }
}

TEST_F(Session, GreetingIgnoresKeys)
{
    ManagementClient &client = Connect();
    EXPECT_THAT(client.Ask("Hello?Key=5&Nonsense=6&=&&&"), IsGreeting());
    EXPECT_EQ(agent_.CountInLog("Invalid Token"), 0U);
}

TEST_F(Session, GreetingWorksAfterLogin)
{
    ManagementClient &client = LogIn();
    EXPECT_THAT(client.Ask("Hello?"), IsGreeting());
    EXPECT_EQ(client.Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=1");
}

TEST_F(Session, GreetsManySessionsAtOnce)
{
    constexpr int kGreetings = 40;
    std::vector<ManagementClient *> clients(20);
    for (ManagementClient *&client : clients)
        client = &Connect();
    std::string lines;
    for (int i = 0; i < kGreetings; ++i)
        lines += "Hello?\n";
    for (const ManagementClient *client : clients)
        client->Send(lines);
    for (ManagementClient *client : clients) {
        std::set<long> keys;
        for (int i = 0; i < kGreetings; ++i)
            keys.insert(KeyOf(client->ReadLine().value_or("(no answer)")));
        EXPECT_GE(*keys.begin(), 0);
        EXPECT_EQ(keys.size(), std::size_t{kGreetings});
    }
}

// Words

TEST_F(Session, KnowsOnlyHelloAndLoginBeforeLogin)
{
    ManagementClient &client = Connect();
    std::size_t refused = 0;
    for (const char *line : {"Heartbeat?", "GetUserInfo?UserNo=1", "SetThreatLevel?"}) {
        client.SendLine(line);
        EXPECT_THAT(client.Ask("Hello?"), IsGreeting()) << line;
        EXPECT_EQ(InvalidMessages(), ++refused) << line;
    }
    EXPECT_EQ(client.Ask("Login?"), "LoginResponse?Result=1");
    client.SendLine("Heartbeat?");
    EXPECT_THAT(client.Ask("Hello?"), IsGreeting()) << "a refused login changes nothing";
}

TEST_F(Session, KnowsWordsInAnyCaseAfterLogin)
{
    ManagementClient &client = LogIn();
    for (const char *line :
         {"GetThreatLevel?", "getthreatlevel?", "GETTHREATLEVEL?", "gEtThReAtLeVeL?"})
        EXPECT_EQ(client.Ask(line), "GetThreatLevelResponse?Result=0&ThreatLevel=1") << line;
}

TEST_F(Session, FindsWordAnywhereInLine)
{
    ManagementClient &client = LogIn();
    EXPECT_EQ(client.Ask("XYZGetDoorLock?DoorNo=1"), "GetDoorLockResponse?Result=1");
    EXPECT_TRUE(agent_.WaitForMessage(kSource, "GetDoorLock", "Invalid Token: DoorNo"));
    EXPECT_TRUE(agent_.WaitForMessage(kSource, "GetDoorLock", "GetDoorLock fail"));
    EXPECT_EQ(client.Ask("XYZGetDoorLock?Port=2"), "GetDoorLockResponse?Result=0&Status=1");
    EXPECT_EQ(client.Ask(" \t\x01 heartbeat?"), "HeartbeatResponse?Result=0");
    // The pairs start after the first question mark of the line, wherever the word is.
    EXPECT_EQ(client.Ask("Nothing?Port=2&Text=GetDoorLock?"),
              "GetDoorLockResponse?Result=0&Status=1");
    EXPECT_EQ(client.Ask("?Port=2&Text=GetDoorLock?"), "GetDoorLockResponse?Result=1");
}

TEST_F(Session, TakesFirstWordOfTableWhenLineHoldsSeveral)
{
    ManagementClient &client = LogIn();
    for (const auto &[first, later] :
         {std::pair("Hello", "SetThreatLevel"), std::pair("Heartbeat", "SetEvent"),
          std::pair("GetEventLog", "GetEventLogEx")}) {
        const std::string word = first;
        const std::string other = later;
        EXPECT_EQ(AnsweringWord(client, other + "?x=" + word + "?"), word) << other;
        EXPECT_EQ(AnsweringWord(client, word + "?x=" + other + "?"), word) << other;
    }
}

TEST_F(Session, DoesNotKnowWordWithoutQuestionMark)
{
    ManagementClient &client = LogIn();
    std::size_t refused = 0;
    for (const char *line : {"Heartbeat", "Heartbeat ?", "HeartbeatX?", "Heartbeat=?"}) {
        client.SendLine(line);
        EXPECT_THAT(client.Ask("Hello?"), IsGreeting()) << line;
        EXPECT_EQ(InvalidMessages(), ++refused) << line;
    }
}

TEST_F(Session, DoesNotAnswerUnknownCommands)
{
    ManagementClient &client = LogIn();
    std::size_t refused = 0;
    for (const char *line : {"", "?", "Logout?", "GetAll?Limit=1", "\r", "DROP TABLE User;"}) {
        client.SendLine(line);
        EXPECT_EQ(client.Ask("Heartbeat?"), "HeartbeatResponse?Result=0") << line;
        EXPECT_EQ(InvalidMessages(), ++refused) << line;
    }
}

// Keys and values

TEST_F(Session, LogsAndSkipsUnknownKeys)
{
    ManagementClient &client = LogIn();
    EXPECT_EQ(client.Ask("GetThreatInfo?Nonsense=1&Level=3&%n%s%x=2&Lev el=4"),
              "GetThreatInfoResponse?Result=0&Level=3&Desc=Elevated");
    for (const char *key : {"Nonsense", "%n%s%x", "Lev el"})
        EXPECT_EQ(
            agent_.CountMessages(kSource, "GetThreatInfo", std::string("Invalid Token: ") + key),
            1U)
            << key;
    EXPECT_EQ(agent_.CountInLog("Invalid Token"), 3U);
}

// Lines

TEST_F(Session, AnswersPipelinedLinesInOrder)
{
    ManagementClient &client = Connect();
    std::string lines = "Login?Username=admin&Password=admin1234\n";
    for (int i = 0; i < 100; ++i)
        lines += "Heartbeat?\nNonsense?\nGetThreatInfo?Level=" + std::to_string(1 + i % 5) +
                 "\nSetEvent?Enable=1\n";
    client.Send(lines);
    EXPECT_EQ(client.ReadLine(), "LoginResponse?Result=0");
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(client.ReadLine(), "HeartbeatResponse?Result=0");
        EXPECT_EQ(client.ReadLine(),
                  "GetThreatInfoResponse?Result=0&Level=" + std::to_string(1 + i % 5) +
                      "&Desc=" + panel::kThreatLevels[static_cast<std::size_t>(i % 5)]);
        EXPECT_EQ(client.ReadLine(), "SetEventResponse?Result=0");
    }
    EXPECT_EQ(InvalidMessages(), 100U);
}

TEST_F(Session, AnswersClientThatHasShutDownItsSide)
{
    ManagementClient &client = Connect();
    client.Send("Hello?\nHello?\n");
    shutdown(client.Socket(), SHUT_WR);
    EXPECT_THAT(client.ReadLine(), Optional(IsGreeting()));
    EXPECT_THAT(client.ReadLine(), Optional(IsGreeting()));
}

TEST_F(Session, DropsPartialLineAfter5SecondsAndReadsRestAsLine)
{
    ManagementClient &client = Connect();
    ASSERT_THAT(client.Ask("Hello?"), IsGreeting());
    client.Send("Hel");
    EXPECT_TRUE(client.IsSilent(milliseconds(2500)));
    client.Send("lo?\n");
    EXPECT_THAT(client.ReadLine(), Optional(IsGreeting()));
    client.Send("Hel");
    EXPECT_TRUE(client.IsSilent(milliseconds(6500)));
    client.Send("lo?\n");
    EXPECT_EQ(client.Ask("Login?"), "LoginResponse?Result=1") << "the rest is not answered";
    EXPECT_EQ(InvalidMessages(), 1U);
}

TEST_F(Session, AcceptsLineOf1023Bytes)
{
    ManagementClient &client = LogIn();
    const std::string key = std::string(1023 - 14 - 2, 'k');
    EXPECT_EQ(client.Ask("GetThreatInfo?" + key + "=v"), "GetThreatInfoResponse?Result=1");
    EXPECT_EQ(agent_.CountMessages(kSource, "GetThreatInfo", "Invalid Token: " + key), 1U);
    EXPECT_EQ(InvalidMessages(), 0U);
}

TEST_F(Session, RefusesLineOf1024BytesAndReadsRestAsLine)
{
    ManagementClient &client = LogIn();
    client.SendLine(Filled("Login?", 1024));
    EXPECT_EQ(client.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
    EXPECT_EQ(InvalidMessages(), 1U) << "the line feed alone is a line";
    EXPECT_EQ(client.Ask(std::string(1024, 'x') + "Heartbeat?"), "HeartbeatResponse?Result=0");
    // The word is split in two.
    client.SendLine(std::string(1020, 'x') + "Heartbeat?");
    EXPECT_THAT(client.Ask("Hello?"), IsGreeting());
    EXPECT_EQ(InvalidMessages(), 2U);
}

TEST_F(Session, AcceptsEveryByteInLine)
{
    ManagementClient &client = LogIn();
    std::string all;
    std::size_t refused = 0;
    for (int code = 1; code <= 255; ++code) {
        const char byte = static_cast<char>(code);
        if (byte == '\n')
            continue;
        all += byte;
        EXPECT_EQ(client.Ask(std::string("Heart") + byte + "Heartbeat?" + byte),
                  "HeartbeatResponse?Result=0")
            << code;
        client.SendLine(std::string("Heart") + byte + "beat?");
        EXPECT_THAT(client.Ask("Hello?"), IsGreeting()) << code;
        EXPECT_EQ(InvalidMessages(), ++refused) << code;
    }
    // A question mark ends the command, "&" and "=" separate pairs.
    EXPECT_EQ(client.Ask("GetThreatInfo?" + all + "&Level=3"),
              "GetThreatInfoResponse?Result=0&Level=3&Desc=Elevated");
    EXPECT_EQ(client.Ask("GetDoorInfoEx?Name=" + all), "GetDoorInfoExResponse?Result=1");
    EXPECT_EQ(client.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
}

TEST_F(Session, ReadsLineUpToFirstZeroByte)
{
    ManagementClient &client = LogIn();
    const std::string zero(1, '\0');
    EXPECT_EQ(client.Ask("Heartbeat?" + zero + "Hello?"), "HeartbeatResponse?Result=0");
    EXPECT_EQ(client.Ask("GetThreatInfo?Level=2" + zero + "&Level=3"),
              "GetThreatInfoResponse?Result=0&Level=2&Desc=Guarded");
    for (const std::string &line :
         {zero, zero + "Heartbeat?", "Heart" + zero + "beat?", std::string(1023, '\0')}) {
        const std::size_t before = InvalidMessages();
        client.SendLine(line);
        EXPECT_EQ(client.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
        EXPECT_EQ(InvalidMessages(), before + 1);
    }
}

// Idle limit

/// Waits until the agent ends the session, which is silent from now on, and checks the time.
void ExpectEndOfIdleSession(ManagementClient &client, const Stopwatch &sinceLastLine)
{
    EXPECT_TRUE(client.IsClosedByPeer(seconds(60)));
    // At most 15 seconds; the margin is for a busy machine.
    EXPECT_GE(sinceLastLine.Seconds(), 10.0);
    EXPECT_LT(sinceLastLine.Seconds(), 20.0);
    EXPECT_EQ(client.ReadBytes(1, milliseconds(0)), "") << "nothing is sent";
}

TEST_F(Session, EndsWhenSilentBeforeLogin)
{
    ManagementClient &client = Connect();
    const Stopwatch watch;
    ASSERT_THAT(client.Ask("Hello?"), IsGreeting());
    ExpectEndOfIdleSession(client, watch);
    EXPECT_TRUE(agent_.WaitForLog("Client Count: 0"));
}

TEST_F(Session, EndsWhenSilentAfterLogin)
{
    ManagementClient &client = LogIn();
    const Stopwatch watch;
    ASSERT_EQ(client.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
    ExpectEndOfIdleSession(client, watch);
    EXPECT_TRUE(agent_.WaitForLog("Client Count: 0"));
}

TEST_F(Session, EndsAfterClientHasClosed)
{
    ManagementClient &client = Connect();
    ASSERT_THAT(client.Ask("Hello?"), IsGreeting());
    const Stopwatch watch;
    client.Close();
    EXPECT_TRUE(agent_.WaitForLog("Client Count: 0", seconds(60)));
    EXPECT_GE(watch.Seconds(), 9.0) << "the end of a connection is not noticed by itself";
    EXPECT_LT(watch.Seconds(), 20.0);
    const std::string lead = "Socket: ";
    std::size_t sockets = 0;
    for (const std::string &line : agent_.Log()) {
        if (!line.starts_with(lead) || line.find(", Addr: 127.0.0.1") == std::string::npos)
            continue;
        const int socket = std::stoi(line.substr(lead.size()));
        EXPECT_FALSE(std::filesystem::is_symlink("/proc/" + std::to_string(agent_.Pid()) + "/fd/" +
                                                 std::to_string(socket)));
        ++sockets;
    }
    EXPECT_EQ(sockets, 1U);
}

TEST_F(Session, BytesWithoutLineFeedAreNoActivity)
{
    ManagementClient &client = Connect();
    const Stopwatch watch;
    ASSERT_THAT(client.Ask("Hello?"), IsGreeting());
    while (client.IsSilent(milliseconds(700)) && watch.Seconds() < 60)
        client.Send("x");
    ExpectEndOfIdleSession(client, watch);
}

TEST_F(Session, StaysOpenWithHeartbeats)
{
    ManagementClient &client = LogIn();
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(client.IsSilent(seconds(5)));
        EXPECT_EQ(client.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
    }
    EXPECT_EQ(client.Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=1");
}

TEST_F(Session, IdleTimeStartsWhenLineIsReceived)
{
    ManagementClient &client = LogIn();
    ReplaceProgram(panel_.Paths().CommandTool, "sleep 6\n");
    const Stopwatch watch;
    // The tool runs twice, for the output and for the audit entry: the limit has then expired.
    client.Send("SetAuxOutput?Port=1&Control=1\nHeartbeat?\n");
    EXPECT_EQ(client.ReadLine(seconds(60)), "SetAuxOutputResponse?Result=0");
    EXPECT_GE(watch.Seconds(), 12.0);
    EXPECT_TRUE(client.IsClosedByPeer());
    EXPECT_EQ(client.ReadBytes(1, milliseconds(0)), "") << "the next line is not served";
}

TEST_F(Session, InvalidLinesAreActivity)
{
    ManagementClient &client = Connect();
    for (const char *line : {"Heartbeat?", "", "Nonsense"}) {
        client.SendLine(line);
        EXPECT_TRUE(client.IsSilent(seconds(7)));
    }
    EXPECT_THAT(client.Ask("Hello?"), IsGreeting());
    EXPECT_EQ(InvalidMessages(), 3U);
}

} // namespace
} // namespace nimbra::test
