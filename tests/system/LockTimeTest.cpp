// Requests while the panel keeps its databases locked: how long they wait, and what becomes of
// them.

#include "simulator/panel/Sqlite.h"
#include "support/CommandTest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <list>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

namespace nimbra::test {
namespace {

using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::Gt;
using ::testing::Lt;
using ::testing::StartsWith;

/// What a request may take when it waits for a lock until its time is spent.
constexpr double kLongest = 4.5;

/// Locks a database as the panel does for a change.
class Lock
{
public:
    explicit Lock(const std::filesystem::path &file) : database_(file)
    {
        database_.Run("BEGIN EXCLUSIVE");
    }
    ~Lock() { database_.Run("COMMIT"); }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;

private:
    panel::SqliteFile database_;
};

/// A request that needs a database.
struct Request
{
    const char *Text;
    bool IsChange = false;
    bool NeedsLog = false;
    const char *Upload = ""; ///< the bytes that follow the line
};

constexpr Request kRequests[] = {
    {.Text = "GetEventLog?EventNo=1", .NeedsLog = true},
    {.Text = "GetEventLogEx?", .NeedsLog = true},
    {"GetEventCode?Code=10001"},
    {"GetEventCodeEx?"},
    {"GetLiveVideoInfo?DoorNo=1"},
    {"GetPlayVideoInfo?VideoTag=1"},
    {"GetDoorInfo?DoorNo=1"},
    {"GetDoorInfoEx?"},
    {"GetUserInfo?UserNo=1"},
    {"GetUserInfoEx?"},
    {"SetUserInfo?UserNo=1&LastName=L", true},
    {"AddUserInfo?LastName=L", true},
    {"DelUserInfo?UserNo=12", true},
    {"GetUserImage?UserNo=6"},
    {.Text = "SetUserImage?UserNo=1&FileName=late.jpg&Size=3", .IsChange = true, .Upload = "jpg"},
    {"GetCardFormat?FormatNo=1"},
    {"GetCardFormatEx?"},
    {"GetCardInfo?CardNo=1"},
    {"GetCardInfoEx?"},
    {"SetCardInfo?CardNo=1&UserNo=1&FormatNo=1&CardNumber=1", true},
    {"AddCardInfo?UserNo=1&FormatNo=1&CardNumber=2", true},
    {"DelCardInfo?CardNo=2", true},
    {"GetAccessLevel?LevelNo=1"},
    {"GetAccessLevelEx?"},
    {"GetCardAccessLevel?CardNo=1"},
    {"SetCardAccessLevel?CardNo=1&SelectType=1&AccessLevelNo=1 2", true},
    {"GetThreatInfo?Level=1"},
    {"GetThreatInfoEx?"},
    {"GetThreatLevel?"},
    {"SetThreatLevel?ThreatLevel=1", true},
    {"GetDoorLock?Port=1"},
    {"GetAuxOutput?Port=1"},
    {"Login?Username=operator&Password=operate!1"},
};

std::ostream &operator<<(std::ostream &out, const Request &request)
{
    return out << request.Text;
}

std::string NameOf(const ::testing::TestParamInfo<Request> &info)
{
    return CommandOf(info.param.Text);
}

class LockedPanel : public CommandTest, public ::testing::WithParamInterface<Request>
{
protected:
    [[nodiscard]] std::filesystem::path File() const
    {
        return GetParam().NeedsLog ? panel_.Paths().LogDatabase : panel_.Paths().MainDatabase;
    }
    [[nodiscard]] std::string Command() const { return CommandOf(GetParam().Text); }
    void SendRequest()
    {
        client_->SendLine(GetParam().Text);
        client_->Send(GetParam().Upload);
    }
    [[nodiscard]] std::string Response(int result) const
    {
        return Command() + "Response?Result=" + std::to_string(result);
    }
};

TEST_P(LockedPanel, FailsARequestWhenItsTimeIsSpent)
{
    const std::vector<std::string> before = TestPanel::Dump(File());
    {
        const Lock lock(File());
        const Stopwatch watch;
        SendRequest();
        EXPECT_EQ(client_->ReadLine(), Response(1));
        EXPECT_THAT(watch.Seconds(), AllOf(Gt(2.9), Lt(kLongest)));
        EXPECT_EQ(Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
    }
    const std::string message = Command() == "Login" ? "CheckPassword fail" : Command() + " fail";
    EXPECT_TRUE(agent_.WaitForMessage("ClientWorker.cpp", Command(), message));
    EXPECT_EQ(agent_.CountMessages("DataManager.cpp", Command(), "sqlite3_exec fail"),
              GetParam().IsChange || GetParam().NeedsLog ? 1U : 0U);
    EXPECT_EQ(TestPanel::Dump(File()), before);
    SendRequest();
    EXPECT_THAT(client_->ReadLine().value_or("(no answer)"), StartsWith(Response(0)));
}

TEST_P(LockedPanel, ServesARequestWhenTheLockEndsInTime)
{
    std::optional<Lock> lock(File());
    SendRequest();
    EXPECT_TRUE(client_->IsSilent(milliseconds(1500)));
    lock.reset();
    const Stopwatch watch;
    EXPECT_THAT(client_->ReadLine().value_or("(no answer)"), StartsWith(Response(0)));
    EXPECT_LT(watch.Seconds(), 2.0);
}

INSTANTIATE_TEST_SUITE_P(Commands, LockedPanel, ::testing::ValuesIn(kRequests), NameOf);

/// A panel that is at work nearly all the time: every statement of the agent meets a lock.
class BusyPanel
{
public:
    explicit BusyPanel(const std::filesystem::path &database)
        : thread_([this, database] {
              while (!isDone_) {
                  {
                      const Lock lock(database);
                      std::this_thread::sleep_for(milliseconds(150));
                  }
                  std::this_thread::sleep_for(milliseconds(2));
              }
          })
    {}
    ~BusyPanel()
    {
        isDone_ = true;
        thread_.join();
    }
    BusyPanel(const BusyPanel &) = delete;
    BusyPanel &operator=(const BusyPanel &) = delete;

private:
    std::atomic<bool> isDone_ = false;
    std::thread thread_;
};

class LockTime : public CommandTest
{
protected:
    LockTime() : CommandTest(ManyDoors()) {}

    static panel::PanelSize ManyDoors()
    {
        panel::PanelSize size;
        // Every fourth is disabled: 64 are listed.
        size.Doors = 85;
        return size;
    }

    const std::filesystem::path main_ = panel_.Paths().MainDatabase;
};

TEST_F(LockTime, IsSharedByChangesThatWaitForEachOther)
{
    std::list<ManagementClient> clients;
    for (int i = 0; i < 8; ++i)
        clients.push_back(LoggedIn());
    {
        const Lock lock(main_);
        const Stopwatch watch;
        for (ManagementClient &client : clients)
            client.SendLine("AddUserInfo?LastName=Late");
        for (ManagementClient &client : clients)
            EXPECT_EQ(client.ReadLine(), "AddUserInfoResponse?Result=1");
        EXPECT_LT(watch.Seconds(), kLongest);
    }
    EXPECT_TRUE(agent_.WaitForMessage("DataManager.cpp", "AddUserInfo", "sqlite3_exec fail", 8));
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM User WHERE LastName='Late'"), "0");
    for (ManagementClient &client : clients)
        EXPECT_EQ(client.Ask("AddUserInfo?LastName=Later"), "AddUserInfoResponse?Result=0");
    EXPECT_EQ(panel_.Value("SELECT COUNT(DISTINCT No) FROM User WHERE LastName='Later'"), "8");
}

TEST_F(LockTime, ServesChangesThatWaitForEachOtherWhenTheLockEndsInTime)
{
    std::list<ManagementClient> clients;
    for (int i = 0; i < 8; ++i)
        clients.push_back(LoggedIn());
    std::optional<Lock> lock(main_);
    for (ManagementClient &client : clients)
        client.SendLine("AddUserInfo?LastName=Patient");
    EXPECT_TRUE(clients.front().IsSilent(seconds(1)));
    lock.reset();
    for (ManagementClient &client : clients)
        EXPECT_EQ(client.ReadLine(), "AddUserInfoResponse?Result=0");
    EXPECT_EQ(panel_.Value("SELECT COUNT(DISTINCT No) FROM User WHERE LastName='Patient'"), "8");
}

TEST_F(LockTime, HoldsForAllDoorsOfAListTogether)
{
    const std::vector<std::string> good = AskList("GetDoorInfoEx?");
    ASSERT_EQ(good.size(), 65U);
    std::optional<BusyPanel> panel(main_);
    for (int i = 0; i < 3; ++i) {
        const Stopwatch watch;
        const std::vector<std::string> answer = AskList("GetDoorInfoEx?");
        EXPECT_LT(watch.Seconds(), kLongest);
        // Whole and right, or refused: no door has a status that was not read.
        EXPECT_THAT(answer,
                    AnyOf(good, std::vector<std::string>{"GetDoorInfoExResponse?Result=1"}));
        EXPECT_EQ(Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
    }
    panel.reset();
    EXPECT_EQ(AskList("GetDoorInfoEx?"), good);
}

TEST_F(LockTime, AgentEndsWithin9SecondsWhileLocksComeAndGoInAList)
{
    const BusyPanel panel(main_);
    client_->SendLine("GetDoorInfoEx?");
    EXPECT_TRUE(client_->IsSilent(milliseconds(500)));
    const Stopwatch watch;
    EXPECT_EQ(agent_.End(), 0);
    EXPECT_LT(watch.Seconds(), 9.0);
}

TEST_F(LockTime, AgentEndsWithin9SecondsWhileDatabaseIsLocked)
{
    const Lock lock(main_);
    client_->SendLine("GetDoorInfoEx?");
    ManagementClient other;
    other.SendLine("Login?Username=operator&Password=operate!1");
    EXPECT_TRUE(client_->IsSilent(milliseconds(500)));
    const Stopwatch watch;
    EXPECT_EQ(agent_.End(), 0);
    EXPECT_LT(watch.Seconds(), 9.0);
}

} // namespace
} // namespace nimbra::test
