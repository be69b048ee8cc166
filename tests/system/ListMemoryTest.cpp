// The memory that lists take when their clients read nothing: all lists together keep the limit,
// and the panel's other programs keep their memory.

#include "support/Agent.h"
#include "support/Files.h"
#include "support/ManagementClient.h"
#include "support/MemoryGroup.h"
#include "support/Program.h"
#include "support/Sanitized.h"
#include "support/TestPanel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>

namespace nimbra::test {
namespace {

using ::testing::EndsWith;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr std::size_t kClients = 10;
constexpr char kLongList[] = "GetEventLogEx?Limit=100000";
constexpr char kFits[] = "GetEventLogExResponse?Result=0&Total=100000&Offset=0&Count=100000";
constexpr char kDoesNotFit[] = "GetEventLogExResponse?Result=1";
constexpr char kHeartbeatAnswer[] = "HeartbeatResponse?Result=0";
constexpr std::size_t kLimitKiB = std::size_t{NIMBRA_ROWS_MIB} * 1024;
/// What the rest of the agent takes beside the rows.
constexpr std::size_t kOthersKiB = std::size_t{8} * 1024;
/// SQLite's cache, and the stack and buffers of a session, while a list is read from the database.
constexpr std::size_t kSessionKiB = 2300;

/// Adds events with the longest texts to the log, until it has so many.
void FillLog(const TestPanel &panel, int count)
{
    TestPanel::Run(panel.Paths().LogDatabase,
                   "WITH RECURSIVE Numbers(No) AS (SELECT 61 UNION ALL SELECT No + 1 FROM Numbers"
                   " WHERE No < " +
                       std::to_string(count) +
                       ") INSERT INTO Log (No, Date, Type, Port, DeviceName, EventCode, UserName)"
                       " SELECT No, 1700000000 + No, 2, 1, 'The long name of a side entrance',"
                       " 20001, 'A user with thirty-two characters' FROM Numbers");
}

/// A client that has logged in, and reads nothing of a list that it gets.
class IdleReader
{
public:
    void Ask() const { client_.SendLine(kLongList); }

    /// The first line that has arrived, without its line feed; empty while there is none. It stays
    /// in the socket.
    [[nodiscard]] std::string Answer() const
    {
        std::string bytes(sizeof kFits, '\0');
        const ssize_t count =
            recv(client_.Socket(), bytes.data(), bytes.size(), MSG_PEEK | MSG_DONTWAIT);
        bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        const std::size_t end = bytes.find('\n');
        return end == std::string::npos ? "" : bytes.substr(0, end);
    }
    [[nodiscard]] bool HasList() const { return Answer() == kFits; }

    [[nodiscard]] ManagementClient &Client() { return client_; }

private:
    ManagementClient client_ = LoggedIn();
};

/// An agent with a long log, and clients that ask for much of it and read nothing.
class ListMemory : public ::testing::Test
{
protected:
    ~ListMemory() override { EndAgent(); }

    /// Its sessions need not wait for the clients.
    void EndAgent()
    {
        if (!agent_)
            return;
        agent_->Signal(SIGTERM);
        for (IdleReader &reader : readers_)
            reader.Client().Reset();
        agent_.reset();
    }

    void StartAgent(int events, const Agent::Options &options = {})
    {
        FillLog(panel_, events);
        agent_.emplace(options);
        EXPECT_THAT(LoggedIn().Ask("GetEventLogEx?Limit=1"),
                    StartsWith("GetEventLogExResponse?Result=0"));
        before_ = agent_->ResidentKiB();
    }

    /// Has all clients ask at once, and waits until each has its response.
    void AskAll()
    {
        readers_ = std::vector<IdleReader>(kClients);
        for (const IdleReader &reader : readers_)
            reader.Ask();
        for (const IdleReader &reader : readers_)
            WaitForAnswer(reader);
    }

    /// Has the clients without a list ask again, one after the other, until the list of one does
    /// not fit beside those that are held.
    void AskUntilFull()
    {
        for (IdleReader &reader : readers_) {
            if (reader.HasList())
                continue;
            EXPECT_EQ(reader.Client().ReadLine(), kDoesNotFit);
            ++refused_;
            reader.Ask();
            WaitForAnswer(reader);
            if (!reader.HasList())
                return;
        }
    }

    /// Shows that every response that was no list is a failure that was logged.
    void ExpectOthersRefused()
    {
        for (const IdleReader &reader : readers_) {
            if (reader.HasList())
                continue;
            EXPECT_EQ(reader.Answer(), kDoesNotFit);
            ++refused_;
        }
        EXPECT_GT(refused_, 0U);
        ExpectRefusalsLogged();
    }

    void ExpectRefusalsLogged()
    {
        EXPECT_TRUE(
            agent_->WaitForMessage("DataManager.cpp", "GetEventLogEx", "RowList full", refused_));
        EXPECT_TRUE(agent_->WaitForMessage("ClientWorker.cpp", "GetEventLogEx",
                                           "GetEventLogEx fail", refused_));
        EXPECT_EQ(agent_->CountInLog("RowList full"), refused_);
    }

    void WaitForAnswer(const IdleReader &reader)
    {
        EXPECT_TRUE(WaitUntil(
            [&] {
                Look();
                return !reader.Answer().empty();
            },
            seconds(100)));
    }

    /// Notes the agent's memory, and takes its output, which must not fill its pipe.
    void Look()
    {
        static_cast<void>(agent_->Log());
        mostKiB_ = std::max(mostKiB_, agent_->ResidentKiB());
    }

    void ExpectBounded()
    {
        Look();
        if (!kIsSanitized) {
            EXPECT_LT(mostKiB_, before_ + kLimitKiB + kClients * kSessionKiB + kOthersKiB);
        }
    }

    void ExpectRowsFreed()
    {
        if (kIsSanitized)
            return;
        EXPECT_TRUE(WaitUntil(
            [this] {
                Look();
                return agent_->ResidentKiB() < before_ + kOthersKiB;
            },
            seconds(100)))
            << agent_->ResidentKiB() << " KiB, at first " << before_;
    }

    /// Shows that the request for more rows than fit is refused.
    void ExpectNeverFits(ManagementClient &client)
    {
        client.SendLine("GetEventLogEx?Limit=2000000");
        std::optional<std::string> answer;
        EXPECT_TRUE(WaitUntil(
            [&] {
                Look();
                answer = client.ReadLine(milliseconds(20));
                return answer.has_value();
            },
            seconds(100)));
        EXPECT_EQ(answer, kDoesNotFit);
        ++refused_;
        ExpectRefusalsLogged();
    }

    /// Shows that a list fits whose client reads it.
    static void ExpectFits(ManagementClient &client)
    {
        const std::vector<std::string> answer = client.AskList(kLongList);
        EXPECT_EQ(answer.front(), kFits);
        EXPECT_THAT(answer, SizeIs(100001));
    }

    /// Reads what was sent of a list, and shows that the session serves the next request.
    static void ExpectGoesOn(ManagementClient &client)
    {
        client.SendLine("Heartbeat?");
        std::size_t lines = 0;
        std::string line;
        // The row that was on its way has no end of its own.
        for (; !line.ends_with(kHeartbeatAnswer) && line != "(none)"; ++lines)
            line = client.ReadLine().value_or("(none)");
        EXPECT_THAT(line, EndsWith(kHeartbeatAnswer));
        EXPECT_LT(lines, 100000U);
    }

    TestPanel panel_;
    std::optional<Agent> agent_;
    std::vector<IdleReader> readers_;
    std::size_t refused_ = 0;

private:
    std::size_t before_ = 0;
    std::size_t mostKiB_ = 0;
};

TEST_F(ListMemory, IsBoundedForClientsThatReadNothingAndFreedAfterAMinute)
{
    // One list of all these events fits only when no other is held.
    StartAgent(190000);
    const Stopwatch watch;
    AskAll();
    AskUntilFull();
    ExpectOthersRefused();
    ExpectBounded();
    ASSERT_TRUE(std::any_of(readers_.begin(), readers_.end(),
                            [](const IdleReader &reader) { return reader.HasList(); }));

    std::string answer;
    EXPECT_TRUE(WaitUntil(
        [&] {
            Look();
            // Not all the time: each attempt reads the log.
            ManagementClient next = LoggedIn();
            static_cast<void>(next.IsSilent(seconds(2)));
            answer = next.Ask("GetEventLogEx?Limit=190000", seconds(60));
            next.Reset();
            return answer != kDoesNotFit;
        },
        seconds(140)));
    EXPECT_GT(watch.Seconds(), 59);
    EXPECT_EQ(answer, "GetEventLogExResponse?Result=0&Total=100000&Offset=0&Count=190000");

    // The sessions go on behind the part that their clients have not read. A sanitized agent has
    // read the log for longer than a session may be silent.
    for (IdleReader &reader : readers_) {
        if (!kIsSanitized && reader.HasList())
            ExpectGoesOn(reader.Client());
    }
    ExpectBounded();
    ExpectRowsFreed();
}

TEST_F(ListMemory, RefusesListThatNeverFits)
{
    StartAgent(2000000);
    ManagementClient client = LoggedIn();
    ExpectNeverFits(client);
    ExpectBounded();
    ExpectRowsFreed();
    EXPECT_THAT(client.AskList("GetEventLogEx?Limit=100"), SizeIs(101));
    ExpectFits(client);
}

/// A sanitizer's own memory is a multiple of the agent's.
constexpr std::size_t kGroupMiB = kIsSanitized ? 4096 : 64;

/// The same in a control group, which has less memory than the lists would take without a limit.
class ListMemoryInGroup : public ListMemory
{
protected:
    /// The agent ends before its group.
    ~ListMemoryInGroup() override { EndAgent(); }

    const MemoryGroup group_{kGroupMiB * 1024 * 1024};
};

/// Another program of the panel in the group, with some memory of its own in use.
class Neighbour
{
public:
    explicit Neighbour(const MemoryGroup &group)
    {
        std::vector<std::string> command = group.Joined().Wrapper;
        command.insert(command.end(), {"sh", "-c",
                                       "text=$(head -c 2000000 /dev/zero | tr '\\0' x)\n"
                                       "touch /nimbra/var/runs\n"
                                       "while [ ! -e /nimbra/var/go ]; do sleep 0.2; done\n"
                                       "echo ${#text}"});
        thread_ = std::thread([this, command] { result_ = RunProgram(command); });
        EXPECT_TRUE(WaitUntil([] { return std::filesystem::exists("/nimbra/var/runs"); }));
    }
    ~Neighbour() { static_cast<void>(Finish()); }
    Neighbour(const Neighbour &) = delete;
    Neighbour &operator=(const Neighbour &) = delete;

    /// Lets it print the size of its memory and end; returns what it has printed.
    [[nodiscard]] std::string Finish()
    {
        WriteFile("/nimbra/var/go", "");
        if (thread_.joinable())
            thread_.join();
        return result_.Output;
    }

private:
    std::thread thread_;
    ProgramResult result_ = {};
};

TEST_F(ListMemoryInGroup, KillsNoProcessWhenListsExceedMemory)
{
    Neighbour neighbour(group_);
    StartAgent(500000, group_.Joined());
    AskAll();
    ExpectOthersRefused();
    ManagementClient client = LoggedIn();
    ExpectNeverFits(client);
    EXPECT_EQ(client.Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=1");
    for (IdleReader &reader : readers_)
        reader.Client().Reset();
    readers_.clear();
    EXPECT_TRUE(WaitUntil([&] { return client.AskList(kLongList).size() == 100001; }));
    EXPECT_TRUE(agent_->IsRunning());
    EXPECT_EQ(neighbour.Finish(), "2000000\n");
    EXPECT_EQ(group_.Kills(), 0U);
}

} // namespace
} // namespace nimbra::test
