// A client session: its greeting, which words it knows and how it finds them in a line, how it
// reads keys and lines, and when it ends.

#include "support/AgentTest.h"
#include "support/Files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <sys/socket.h>
#include <sys/time.h>

namespace nimbra::test {
namespace {

constexpr char kSource[] = "ClientWorker.cpp";

/// Every word in the order in which a session looks for them.
constexpr std::array<const char *, 38> kWords = {"Hello",
                                                 "Login",
                                                 "Heartbeat",
                                                 "SetEvent",
                                                 "GetEventLog",
                                                 "GetEventLogEx",
                                                 "GetEventCode",
                                                 "GetEventCodeEx",
                                                 "GetLiveVideoInfo",
                                                 "GetPlayVideoInfo",
                                                 "GetDoorInfo",
                                                 "GetDoorInfoEx",
                                                 "GetUserInfo",
                                                 "GetUserInfoEx",
                                                 "SetUserInfo",
                                                 "AddUserInfo",
                                                 "DelUserInfo",
                                                 "GetUserImage",
                                                 "SetUserImage",
                                                 "GetCardFormat",
                                                 "GetCardFormatEx",
                                                 "GetCardInfo",
                                                 "GetCardInfoEx",
                                                 "SetCardInfo",
                                                 "AddCardInfo",
                                                 "DelCardInfo",
                                                 "GetAccessLevel",
                                                 "GetAccessLevelEx",
                                                 "GetCardAccessLevel",
                                                 "SetCardAccessLevel",
                                                 "GetThreatInfo",
                                                 "GetThreatInfoEx",
                                                 "GetDoorLock",
                                                 "SetDoorLock",
                                                 "GetAuxOutput",
                                                 "SetAuxOutput",
                                                 "GetThreatLevel",
                                                 "SetThreatLevel"};

class Session : public AgentTest
{
protected:
    /// How many lines no command was found in, so far.
    std::size_t InvalidMessages()
    {
        return agent_.CountMessages(kSource, "Process", "Invalid Message");
    }
};

/// The key of a greeting, -1 when the line is none.
long KeyOf(const std::string &line)
{
    const std::string lead = "HelloResponse?Result=0&Key=";
    if (line.rfind(lead, 0) != 0)
        return -1;
    const std::string digits = line.substr(lead.size());
    const bool isNumber = !digits.empty() && digits.size() <= 10 &&
                          std::all_of(digits.begin(), digits.end(),
                                      [](unsigned char digit) { return std::isdigit(digit) != 0; });
    return isNumber ? std::stol(digits) : -1;
}

bool IsGreeting(const std::string &line)
{
    return KeyOf(line) >= 0;
}

/// The time of day in microseconds.
std::int64_t Microseconds()
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    return std::int64_t{now.tv_sec} * 1000000 + now.tv_usec;
}

/// Whether a key is the first number that the generator draws, seeded with the low 32 bits of one
/// of these microseconds.
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

template <class Change>
std::string Changed(std::string text, Change change)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [&](unsigned char letter) { return static_cast<char>(change(letter)); });
    return text;
}

std::string Upper(const std::string &text)
{
    return Changed(text, [](unsigned char letter) { return std::toupper(letter); });
}

std::string Lower(const std::string &text)
{
    return Changed(text, [](unsigned char letter) { return std::tolower(letter); });
}

std::string Alternating(const std::string &text)
{
    bool isUpper = false;
    return Changed(text, [&](unsigned char letter) {
        isUpper = !isUpper;
        return isUpper ? std::tolower(letter) : std::toupper(letter);
    });
}

/// A line that begins with a word and is filled up to `size` bytes, its line feed not counted.
std::string Filled(const std::string &line, std::size_t size)
{
    return line + std::string(size - line.size(), 'x');
}

// Greeting

TEST_F(Session, GreetsWithAKeyOf31Bits)
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

TEST_F(Session, GivesAnotherKeyAtEachGreeting)
{
    ManagementClient &client = Connect();
    std::set<long> keys;
    for (int i = 0; i < 20; ++i)
        keys.insert(KeyOf(client.Ask("Hello?")));
    EXPECT_EQ(keys.size(), 20U);
}

TEST_F(Session, DrawsItsKeyFromTheTimeOfDay)
{
    ManagementClient &client = Connect();
    for (int i = 0; i < 5; ++i) {
        const std::int64_t before = Microseconds();
        const long key = KeyOf(client.Ask("Hello?"));
        EXPECT_TRUE(IsDrawnBetween(before, Microseconds(), key)) << key;
    }
}

TEST_F(Session, IgnoresTheKeysOfAGreeting)
{
    ManagementClient &client = Connect();
    EXPECT_TRUE(IsGreeting(client.Ask("Hello?Key=5&Nonsense=6&=&&&")));
    EXPECT_EQ(agent_.CountInLog("Invalid Token"), 0U);
}

TEST_F(Session, GreetsAlsoAfterLogin)
{
    ManagementClient &client = LogIn();
    EXPECT_TRUE(IsGreeting(client.Ask("Hello?")));
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
    for (const std::string word : kWords) {
        if (word == "Hello" || word == "Login")
            continue;
        client.SendLine(word + "?");
        EXPECT_TRUE(IsGreeting(client.Ask("Hello?"))) << word;
        EXPECT_EQ(InvalidMessages(), ++refused) << word;
    }
    EXPECT_EQ(refused, 36U);
    EXPECT_EQ(client.Ask("Login?"), "LoginResponse?Result=1");
    client.SendLine("Heartbeat?");
    EXPECT_TRUE(IsGreeting(client.Ask("Hello?"))) << "a refused login unlocks nothing";
}

TEST_F(Session, KnowsEveryWordInAnyCaseAfterLogin)
{
    ManagementClient &client = LogIn();
    std::vector<std::string> words(kWords.begin(), kWords.end());
    // Login comes last: without a name it takes the rights away.
    std::swap(words[1], words.back());
    for (const std::string &word : words)
        for (const std::string &written : {word, Lower(word), Upper(word), Alternating(word)}) {
            const std::string header = client.AskList(written + "?")[0];
            EXPECT_EQ(header.rfind(word + "Response?Result=", 0), 0U) << written << ": " << header;
            EXPECT_NE(header, word + "Response?Result=9");
        }
    EXPECT_EQ(InvalidMessages(), 0U);
}

TEST_F(Session, FindsAWordAnywhereInALine)
{
    ManagementClient &client = LogIn();
    EXPECT_EQ(client.Ask("XYZGetDoorLock?DoorNo=1"), "GetDoorLockResponse?Result=1");
    EXPECT_TRUE(agent_.WaitForMessage(kSource, "GetDoorLock", "Invalid Token: DoorNo"));
    EXPECT_TRUE(agent_.WaitForMessage(kSource, "GetDoorLock", "GetDoorLock fail"));
    EXPECT_EQ(client.Ask("XYZGetDoorLock?Port=2"), "GetDoorLockResponse?Result=0&Status=1");
    EXPECT_EQ(client.Ask(" \t\x01 heartbeat?"), "HeartbeatResponse?Result=0");
    // The pairs begin behind the line's first question mark, wherever the word stands.
    EXPECT_EQ(client.Ask("Nothing?Port=2&Text=GetDoorLock?"),
              "GetDoorLockResponse?Result=0&Status=1");
    EXPECT_EQ(client.Ask("?Port=2&Text=GetDoorLock?"), "GetDoorLockResponse?Result=1");
}

TEST_F(Session, TakesTheFirstWordOfItsOrderWhenALineHoldsSeveral)
{
    ManagementClient &client = LogIn();
    for (std::size_t first = 0; first < kWords.size(); ++first) {
        const std::string word = kWords[first];
        for (std::size_t later = first + 1; later < kWords.size(); ++later) {
            const std::string other = kWords[later];
            EXPECT_EQ(AnsweringWord(client, other + "?x=" + word + "?"), word) << other;
            EXPECT_EQ(AnsweringWord(client, word + "?x=" + other + "?"), word) << other;
        }
    }
}

TEST_F(Session, DoesNotKnowAWordWithoutItsQuestionMark)
{
    ManagementClient &client = LogIn();
    std::size_t refused = 0;
    for (const std::string word : kWords)
        for (const char *end : {"", " ?", "X?", "=?"}) {
            client.SendLine(word + end);
            EXPECT_TRUE(IsGreeting(client.Ask("Hello?"))) << word << end;
            EXPECT_EQ(InvalidMessages(), ++refused) << word << end;
        }
}

TEST_F(Session, LeavesUnknownCommandsUnansweredAfterLogin)
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

TEST_F(Session, LogsAndSkipsKeysThatACommandDoesNotKnow)
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

TEST_F(Session, ReadsPairsAsTheirSeparatorsCutThem)
{
    struct Case
    {
        const char *Pairs;
        int Level; ///< 0: none is read
        std::size_t InvalidTokens;
    };
    constexpr Case kCases[] = {
        {"Level=3", 3, 0},
        {"level=3", 3, 0},
        {"LEVEL=3", 3, 0},
        {"Level= 3", 3, 0},
        {"Level=+3", 3, 0},
        {"Level=003", 3, 0},
        {"Level=3abc", 3, 0},
        {"Level=3=4", 3, 0},
        {"Level=4294967299", 3, 0}, // the low 32 bits
        {"Level=-4294967293", 3, 0},
        {"Level=3.9", 3, 0},
        {"Level=0x3", 0, 0},
        {"Level=abc", 0, 0},
        {"Level=", 0, 0},
        {"Level", 0, 0},
        {"", 0, 0},
        {"Level=1&Level=3", 3, 0},
        {"Level=3&Level", 3, 0},
        {"Level=3&Level=", 3, 0},
        {"Level==3", 0, 0},
        {"=Level=3", 3, 0},
        {"==Level=3", 3, 0},
        {"Level=&Other=5", 0, 0}, // the value is "Other=5"
        {"Level=3&Other=&Level=4", 3, 1},
        {"Other&Level=3", 0, 1}, // the key is "Other&Level"
        {"&Level=3", 0, 1},
        {"Level=3&&", 3, 0},
        {"Level=&3", 3, 0},
        {" Level=3", 0, 1},
        {"Level =3", 0, 1},
        {"Level?=3", 0, 1},
    };
    ManagementClient &client = LogIn();
    std::size_t invalid = 0;
    for (const Case &c : kCases) {
        const std::string answer = client.Ask(std::string("GetThreatInfo?") + c.Pairs);
        if (c.Level == 0)
            EXPECT_EQ(answer, "GetThreatInfoResponse?Result=1") << c.Pairs;
        else
            EXPECT_EQ(answer,
                      "GetThreatInfoResponse?Result=0&Level=" + std::to_string(c.Level) +
                          "&Desc=" + panel::kThreatLevels[static_cast<std::size_t>(c.Level - 1)])
                << c.Pairs;
        invalid += c.InvalidTokens;
        EXPECT_EQ(agent_.CountInLog("Invalid Token"), invalid) << c.Pairs;
    }
}

TEST_F(Session, KeepsACarriageReturnInTheLastValue)
{
    ManagementClient &client = LogIn();
    EXPECT_EQ(client.Ask("Heartbeat?\r"), "HeartbeatResponse?Result=0");
    EXPECT_EQ(client.Ask("GetThreatInfo?Level=3\r"),
              "GetThreatInfoResponse?Result=0&Level=3&Desc=Elevated");
    EXPECT_EQ(client.AskList("GetDoorInfoEx?Name=Lobby").size(), 2U);
    EXPECT_EQ(client.Ask("GetDoorInfoEx?Name=Lobby\r"), "GetDoorInfoExResponse?Result=1");
    EXPECT_EQ(client.AskList("GetDoorInfoEx?Name=Lobby&Limit=5\r").size(), 2U);
}

// Lines

TEST_F(Session, AnswersPipelinedLinesInTheirOrder)
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

TEST_F(Session, AnswersAClientThatSendsNoMore)
{
    ManagementClient &client = Connect();
    client.Send("Hello?\nHello?\n");
    shutdown(client.Socket(), SHUT_WR);
    EXPECT_TRUE(IsGreeting(client.ReadLine().value_or("(no answer)")));
    EXPECT_TRUE(IsGreeting(client.ReadLine().value_or("(no answer)")));
}

TEST_F(Session, PutsALineTogetherThatComesByteByByte)
{
    ManagementClient &client = Connect();
    ASSERT_TRUE(IsGreeting(client.Ask("Hello?")));
    for (const char byte : std::string("Hello?")) {
        client.Send({&byte, 1});
        EXPECT_TRUE(client.IsSilent(milliseconds(120)));
    }
    client.Send("\n");
    EXPECT_TRUE(IsGreeting(client.ReadLine().value_or("(no answer)")));
    EXPECT_EQ(InvalidMessages(), 0U);
}

TEST_F(Session, LosesHalfALineAfterFiveSecondsAndReadsTheRestAsALine)
{
    ManagementClient &client = Connect();
    ASSERT_TRUE(IsGreeting(client.Ask("Hello?")));
    client.Send("Hel");
    EXPECT_TRUE(client.IsSilent(milliseconds(6500)));
    client.Send("lo?\n");
    EXPECT_EQ(client.Ask("Login?"), "LoginResponse?Result=1") << "the rest is not answered";
    EXPECT_EQ(InvalidMessages(), 1U);
}

TEST_F(Session, TakesALineOf1023Bytes)
{
    ManagementClient &client = LogIn();
    EXPECT_EQ(client.Ask(Filled("Heartbeat?", 1023)), "HeartbeatResponse?Result=0");
    EXPECT_EQ(client.Ask(std::string(1013, 'x') + "Heartbeat?"), "HeartbeatResponse?Result=0");
    const std::string key = std::string(1023 - 14 - 2, 'k');
    EXPECT_EQ(client.Ask("GetThreatInfo?" + key + "=v"), "GetThreatInfoResponse?Result=1");
    EXPECT_EQ(agent_.CountMessages(kSource, "GetThreatInfo", "Invalid Token: " + key), 1U);
    EXPECT_EQ(InvalidMessages(), 0U);
}

TEST_F(Session, RefusesALineOf1024BytesAndReadsItsRestAsALine)
{
    ManagementClient &client = LogIn();
    client.SendLine(Filled("Login?", 1024));
    EXPECT_EQ(client.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
    EXPECT_EQ(InvalidMessages(), 1U) << "the line feed alone is a line";
    EXPECT_EQ(client.Ask(std::string(1024, 'x') + "Heartbeat?"), "HeartbeatResponse?Result=0");
    // The word is cut in two.
    client.SendLine(std::string(1020, 'x') + "Heartbeat?");
    EXPECT_TRUE(IsGreeting(client.Ask("Hello?")));
    EXPECT_EQ(InvalidMessages(), 2U);
}

TEST_F(Session, LosesALongLineInPiecesOf1024Bytes)
{
    ManagementClient &client = LogIn();
    client.SendLine(std::string(5000, 'x'));
    EXPECT_EQ(client.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
    EXPECT_EQ(InvalidMessages(), 1U);
    EXPECT_EQ(client.Ask(std::string(4096, 'x') + Filled("Heartbeat?", 904)),
              "HeartbeatResponse?Result=0");
    client.Send(std::string(std::size_t{256} * 1024, 'x'));
    EXPECT_EQ(client.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
    EXPECT_EQ(InvalidMessages(), 1U);
}

TEST_F(Session, TakesEveryByteInALine)
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
        EXPECT_TRUE(IsGreeting(client.Ask("Hello?"))) << code;
        EXPECT_EQ(InvalidMessages(), ++refused) << code;
    }
    // A question mark ends the command, "&" and "=" end the parts of pairs.
    EXPECT_EQ(client.Ask("GetThreatInfo?" + all + "&Level=3"),
              "GetThreatInfoResponse?Result=0&Level=3&Desc=Elevated");
    EXPECT_EQ(client.Ask("GetDoorInfoEx?Name=" + all), "GetDoorInfoExResponse?Result=1");
    EXPECT_EQ(client.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
}

TEST_F(Session, ReadsALineUpToItsFirstZeroByte)
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

/// Waits until the agent ends the session, which must be silent from now on, and checks when.
void ExpectEndOfIdleSession(ManagementClient &client, const Stopwatch &sinceLastLine)
{
    EXPECT_TRUE(client.IsClosedByPeer(seconds(60)));
    // 15 seconds at most; the rest is for a busy machine.
    EXPECT_GE(sinceLastLine.Seconds(), 10.0);
    EXPECT_LT(sinceLastLine.Seconds(), 20.0);
    EXPECT_EQ(client.ReadBytes(1, milliseconds(0)), "") << "the client is told nothing";
}

TEST_F(Session, EndsASilentSessionBeforeLogin)
{
    ManagementClient &client = Connect();
    const Stopwatch watch;
    ASSERT_TRUE(IsGreeting(client.Ask("Hello?")));
    ExpectEndOfIdleSession(client, watch);
    EXPECT_TRUE(agent_.WaitForLog("Client Count: 0"));
}

TEST_F(Session, EndsASilentSessionAfterLogin)
{
    ManagementClient &client = LogIn();
    const Stopwatch watch;
    ASSERT_EQ(client.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
    ExpectEndOfIdleSession(client, watch);
    EXPECT_TRUE(agent_.WaitForLog("Client Count: 0"));
}

TEST_F(Session, EndsASessionWhoseClientHasGone)
{
    ManagementClient &client = Connect();
    ASSERT_TRUE(IsGreeting(client.Ask("Hello?")));
    const Stopwatch watch;
    client.Close();
    EXPECT_TRUE(agent_.WaitForLog("Client Count: 0", seconds(60)));
    EXPECT_GE(watch.Seconds(), 9.0) << "the end of a connection is not noticed by itself";
    EXPECT_LT(watch.Seconds(), 20.0);
    const std::string lead = "Socket: ";
    std::size_t sockets = 0;
    for (const std::string &line : agent_.Log()) {
        if (line.rfind(lead, 0) != 0 || line.find(", Addr: 127.0.0.1") == std::string::npos)
            continue;
        const int socket = std::stoi(line.substr(lead.size()));
        EXPECT_FALSE(std::filesystem::is_symlink("/proc/" + std::to_string(agent_.Pid()) + "/fd/" +
                                                 std::to_string(socket)));
        ++sockets;
    }
    EXPECT_EQ(sockets, 1U);
}

TEST_F(Session, CountsNoBytesWithoutALineFeedAsActivity)
{
    ManagementClient &client = Connect();
    const Stopwatch watch;
    ASSERT_TRUE(IsGreeting(client.Ask("Hello?")));
    while (client.IsSilent(milliseconds(700)) && watch.Seconds() < 60)
        client.Send("x");
    ExpectEndOfIdleSession(client, watch);
}

TEST_F(Session, StaysWithAClientThatSendsHeartbeats)
{
    ManagementClient &client = LogIn();
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(client.IsSilent(seconds(5)));
        EXPECT_EQ(client.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
    }
    EXPECT_EQ(client.Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=1");
}

TEST_F(Session, CountsItsIdleTimeFromTheReceiptOfALine)
{
    ManagementClient &client = LogIn();
    const std::filesystem::path tool = panel_.Paths().CommandTool;
    std::filesystem::remove(tool);
    WriteFile(tool, "#!/bin/sh\nsleep 6\n");
    std::filesystem::permissions(tool, std::filesystem::perms(0755));
    const Stopwatch watch;
    // The tool runs twice, for the output and for the audit entry: the limit is over by then.
    client.Send("SetAuxOutput?Port=1&Control=1\nHeartbeat?\n");
    EXPECT_EQ(client.ReadLine(seconds(60)), "SetAuxOutputResponse?Result=0");
    EXPECT_GE(watch.Seconds(), 12.0);
    EXPECT_TRUE(client.IsClosedByPeer());
    EXPECT_EQ(client.ReadBytes(1, milliseconds(0)), "") << "the next line is not served";
}

TEST_F(Session, CountsInvalidLinesAsActivity)
{
    ManagementClient &client = Connect();
    for (const char *line : {"Heartbeat?", "", "Nonsense"}) {
        client.SendLine(line);
        EXPECT_TRUE(client.IsSilent(seconds(7)));
    }
    EXPECT_TRUE(IsGreeting(client.Ask("Hello?")));
    EXPECT_EQ(InvalidMessages(), 3U);
}

} // namespace
} // namespace nimbra::test
