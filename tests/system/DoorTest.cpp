#include "support/AgentTest.h"
#include "support/CommandTest.h"
#include "support/WithoutDatabases.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace nimbra::test {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

/// Doors of all kinds: relays on, off, of another value, NULL or missing; both contact states;
/// disabled doors. Relays of auxiliary outputs of the same numbers have the opposite state.
constexpr char kDoors[] = R"(
DELETE FROM Door;
DELETE FROM RelayStatus;
INSERT INTO Door (No, Name, Disable, DoorContactState) VALUES
    (1, 'Front door', 0, 0), (2, 'Back door', 0, 0),
    (3, 'Inverted front', 0, 1), (4, 'Inverted back', 0, 1), (5, 'Sense two', 0, 2),
    (6, 'Odd relay', 0, 0), (7, 'Inverted odd relay', 0, 1),
    (8, 'No relay', 0, 0), (9, 'Inverted no relay', 0, 1),
    (10, NULL, 0, NULL), (11, 'Inverted null', 0, 1),
    (12, 'Disabled door', 1, 0), (13, 'Disabled front', 2, 1);
INSERT INTO RelayStatus (Type, No, RelayOn) VALUES
    (3, 1, 1), (3, 2, 0), (3, 3, 1), (3, 4, 0), (3, 5, 0), (3, 6, 2), (3, 7, 2),
    (3, 10, NULL), (3, 11, NULL), (3, 12, 1), (3, 13, 0), (3, 40, 1),
    (2, 1, 0), (2, 2, 1), (2, 3, 0), (2, 4, 1), (2, 8, 1), (1, 8, 1);
)";

struct DoorState
{
    int No;
    std::string Name;
    int Status;
};

std::string LineOf(const DoorState &door)
{
    return "DoorNo=" + std::to_string(door.No) + "&Name=" + door.Name +
           "&Status=" + std::to_string(door.Status);
}

class Door : public CommandTest
{
protected:
    Door() { panel_.Run(kDoors); }

    /// The expected list answer for one page of the enabled doors for which a condition holds.
    std::vector<std::string> Listed(const std::string &condition, int offset = 0, int limit = -1)
    {
        const std::string from = " FROM Door WHERE Disable=0 AND (" + condition + ")";
        const std::vector<std::string> rows = Lines(
            "SELECT printf('DoorNo=%d&Name=%s&Status=%d', No, IFNULL(Name, ''), IFNULL((SELECT "
            "(IFNULL(RelayOn, 0) = 1) <> (IFNULL(DoorContactState, 0) <> 0) FROM RelayStatus R "
            "WHERE Type=3 AND R.No=Door.No), 0))" +
            from + " ORDER BY No LIMIT " + std::to_string(limit) + " OFFSET " +
            std::to_string(offset));
        return ListAnswer("GetDoorInfoEx", std::stoul(panel_.Value("SELECT COUNT(*)" + from)),
                          offset, rows);
    }

    /// Replaces all doors by `count` doors without a relay.
    void MakeDoors(int count)
    {
        panel_.Run("DELETE FROM Door; WITH RECURSIVE N(No) AS (SELECT 1 UNION ALL SELECT No + 1 "
                   "FROM N WHERE No < " +
                   std::to_string(count) +
                   ") INSERT INTO Door (No, Name, Disable) SELECT No, 'Gate ' || No, 0 FROM N");
    }

    /// The reported state of the enabled doors of kDoors.
    const std::vector<DoorState> enabled_ = {{1, "Front door", 1},         {2, "Back door", 0},
                                             {3, "Inverted front", 0},     {4, "Inverted back", 1},
                                             {5, "Sense two", 1},          {6, "Odd relay", 0},
                                             {7, "Inverted odd relay", 1}, {8, "No relay", 0},
                                             {9, "Inverted no relay", 0},  {10, "", 0},
                                             {11, "Inverted null", 1}};
};

class DoorSessions : public AgentTest
{};

} // namespace

TEST_F(Door, GetDoorInfoReturnsNumberNameAndLockState)
{
    for (const DoorState &door : enabled_)
        EXPECT_EQ(Ask("GetDoorInfo?DoorNo=" + std::to_string(door.No)),
                  "GetDoorInfoResponse?Result=0&" + LineOf(door));
}

TEST_F(Door, GetDoorInfoReadsItsKey)
{
    ExpectReadsKeys("GetDoorInfo?DoorNo=4");
}

TEST_F(Door, GetDoorInfoWithoutKeyReadsDoorZero)
{
    ExpectFails("GetDoorInfo?");
    panel_.Run("INSERT INTO Door (No, Name) VALUES (0, 'Zero')");
    EXPECT_EQ(Ask("GetDoorInfo?"), "GetDoorInfoResponse?Result=0&DoorNo=0&Name=Zero&Status=0");
}

TEST_F(Door, GetDoorInfoFailsForUnknownDoor)
{
    ExpectFails("GetDoorInfo?DoorNo=99");
    ExpectFails("GetDoorInfo?DoorNo=-1");
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(Door, DisabledDoorsAreHidden)
{
    ExpectFails("GetDoorInfo?DoorNo=12");
    ExpectFails("GetDoorInfo?DoorNo=13");
    ExpectFails("GetDoorInfoEx?DoorNo=12");
    ExpectFails("GetDoorInfoEx?Name=Disabled");
    EXPECT_EQ(AskList("GetDoorInfoEx?Name=door"),
              ListAnswer("GetDoorInfoEx", 2, 0, {LineOf(enabled_[0]), LineOf(enabled_[1])}));
}

TEST_F(Door, DisabledDoorStillReportsLockState)
{
    EXPECT_EQ(Ask("GetDoorLock?Port=12"), "GetDoorLockResponse?Result=0&Status=1");
    EXPECT_EQ(Ask("GetDoorLock?Port=13"), "GetDoorLockResponse?Result=0&Status=1");
}

TEST_F(Door, NamesAreCutAt32Bytes)
{
    const std::string name = "0123456789abcdefghijklmnopqrstuv";
    panel_.Run("UPDATE Door SET Name='" + name + "wxyz' WHERE No=1");
    const std::string line = "DoorNo=1&Name=" + name + "&Status=1";
    EXPECT_EQ(Ask("GetDoorInfo?DoorNo=1"), "GetDoorInfoResponse?Result=0&" + line);
    EXPECT_EQ(AskList("GetDoorInfoEx?DoorNo=1"), ListAnswer("GetDoorInfoEx", 1, 0, {line}));
}

TEST_F(Door, NameFilterIsCutAt32Bytes)
{
    const std::string name = "0123456789abcdefghijklmnopqrstuv";
    panel_.Run("UPDATE Door SET Name='" + name + "' WHERE No=1");
    EXPECT_EQ(AskList("GetDoorInfoEx?Name=" + name + "wxyz"),
              ListAnswer("GetDoorInfoEx", 1, 0, {"DoorNo=1&Name=" + name + "&Status=1"}));
}

TEST_F(Door, GetDoorInfoExWithoutKeysListsEveryEnabledDoor)
{
    std::vector<std::string> rows;
    for (const DoorState &door : enabled_)
        rows.push_back(LineOf(door));
    EXPECT_EQ(AskList("GetDoorInfoEx?"), ListAnswer("GetDoorInfoEx", rows.size(), 0, rows));
    EXPECT_EQ(AskList("GetDoorInfoEx?"), Listed("1"));
}

TEST_F(Door, GetDoorInfoExReadsItsKeys)
{
    ExpectReadsKeys("GetDoorInfoEx?DoorNo=4&Name=back&Offset=0&Limit=5");
}

TEST_F(Door, FiltersApplyAloneAndTogetherAndTotalCountsWithThem)
{
    struct Filter
    {
        const char *Keys;
        const char *Condition;
        std::size_t Rows;
    };
    const std::vector<Filter> filters = {
        {"DoorNo=4", "No=4", 1},
        {"DoorNo=99", "No=99", 0},
        {"DoorNo=0", "1", 11},
        {"Name=front", "instr(lower(Name), 'front')", 2},
        {"Name=INVERTED", "instr(lower(Name), 'inverted')", 5},
        {"Name=nowhere", "instr(lower(Name), 'nowhere')", 0},
        {"DoorNo=3&Name=front", "No=3 AND instr(lower(Name), 'front')", 1},
        {"Name=front&DoorNo=2", "No=2 AND instr(lower(Name), 'front')", 0},
    };
    for (const Filter &filter : filters) {
        SCOPED_TRACE(filter.Keys);
        const std::vector<std::string> answer =
            AskList(std::string("GetDoorInfoEx?") + filter.Keys);
        EXPECT_EQ(answer, Listed(filter.Condition));
        EXPECT_EQ(answer.size(), filter.Rows + 1);
    }
}

TEST_F(Door, TotalCountsWithFilterBeyondPage)
{
    EXPECT_EQ(AskList("GetDoorInfoEx?Name=inverted&Limit=2&Offset=1"),
              ListAnswer("GetDoorInfoEx", 5, 1, {LineOf(enabled_[3]), LineOf(enabled_[6])}));
}

TEST_F(Door, ListHasNoDefaultPageSize)
{
    MakeDoors(120);
    const std::vector<std::string> answer = AskList("GetDoorInfoEx?");
    EXPECT_THAT(answer, SizeIs(121));
    EXPECT_EQ(answer, Listed("1"));
    EXPECT_EQ(AskList("GetDoorInfoEx?Limit=0&Offset=0"), answer);
}

TEST_F(Door, PagesFollowOffsetAndLimit)
{
    MakeDoors(12);
    struct Page
    {
        int Offset;
        int Limit;
    };
    for (const Page page : {Page{5, 5}, {10, 5}, {3, 100}})
        EXPECT_EQ(AskList("GetDoorInfoEx?Offset=" + std::to_string(page.Offset) +
                          "&Limit=" + std::to_string(page.Limit)),
                  Listed("1", page.Offset, page.Limit));
    ExpectFails("GetDoorInfoEx?Offset=12&Limit=5");
}

TEST_F(Door, ListKeepsDatabaseOrder)
{
    panel_.DropKeys("Door");
    panel_.Run("INSERT INTO Door (No, Name, Disable) VALUES (3, 'Back gate', 0), (1, 'Cellar', 0), "
               "(2, 'All gates', 0)");
    const DoorState three = {3, "Back gate", 1};
    const DoorState one = {1, "Cellar", 1};
    const DoorState two = {2, "All gates", 0};
    EXPECT_EQ(AskList("GetDoorInfoEx?"),
              ListAnswer("GetDoorInfoEx", 3, 0, {LineOf(three), LineOf(one), LineOf(two)}));
    EXPECT_EQ(AskList("GetDoorInfoEx?Name=gate"),
              ListAnswer("GetDoorInfoEx", 2, 0, {LineOf(three), LineOf(two)}));
}

TEST_F(Door, OffsetWithoutLimitFails)
{
    ExpectFails("GetDoorInfoEx?Offset=1");
    ExpectFails("GetDoorInfoEx?Offset=1&Limit=0");
    ExpectFails("GetDoorInfoEx?Offset=-1");
}

TEST_F(Door, GetDoorLockReturnsRelayState)
{
    struct Lock
    {
        int Port;
        int Status;
    };
    for (const Lock lock : {Lock{1, 1}, {2, 0}, {6, 0}, {10, 0}, {40, 1}})
        EXPECT_EQ(Ask("GetDoorLock?Port=" + std::to_string(lock.Port)),
                  "GetDoorLockResponse?Result=0&Status=" + std::to_string(lock.Status));
}

TEST_F(Door, ContactStateInvertsLockState)
{
    struct Lock
    {
        int Port;
        int Status;
    };
    for (const Lock lock : {Lock{3, 0}, {4, 1}, {5, 1}, {7, 1}, {11, 1}})
        EXPECT_EQ(Ask("GetDoorLock?Port=" + std::to_string(lock.Port)),
                  "GetDoorLockResponse?Result=0&Status=" + std::to_string(lock.Status));
}

TEST_F(Door, GetDoorLockFailsWithoutRelay)
{
    ExpectFails("GetDoorLock?Port=8");
    ExpectFails("GetDoorLock?Port=9");
    ExpectFails("GetDoorLock?Port=99");
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(Door, GetDoorLockReadsItsKeyAndDefaultsToPortZero)
{
    ExpectReadsKeys("GetDoorLock?Port=4");
    ExpectFails("GetDoorLock?");
    panel_.Run("INSERT INTO RelayStatus VALUES (3, 0, 1)");
    EXPECT_EQ(Ask("GetDoorLock?"), "GetDoorLockResponse?Result=0&Status=1");
}

TEST_F(Door, GetDoorLockDoesNotKnowKeyDoorNo)
{
    EXPECT_EQ(Ask("XYZGetDoorLock?DoorNo=1"), "GetDoorLockResponse?Result=1");
    EXPECT_TRUE(agent_.WaitForMessage("ClientWorker.cpp", "GetDoorLock", "GetDoorLock fail"));
    EXPECT_EQ(agent_.CountMessages("ClientWorker.cpp", "GetDoorLock", "Invalid Token: DoorNo"), 1U);
}

TEST_F(Door, SetDoorLockRunsCommandToolPauses1SecondAndAudits)
{
    struct Control
    {
        std::string Keys;
        panel::Call Command;
        int EventCode;
    };
    const std::vector<Control> controls = {
        {"Port=3&Control=0", {"door", "3", "locked"}, 11213},
        {"Port=3&Control=1", {"door", "3", "unlocked"}, 11212},
        {"PORT=3&cONTROL=2", {"door", "3", "m_unlock"}, 11212},
        {"Control=1&Port=1&Unknown=1", {"door", "1", "unlocked"}, 11212},
        {"Port=-5", {"door", "-5", "locked"}, 11213},
        {"Port=-2147483648&Control=2", {"door", "-2147483648", "m_unlock"}, 11212},
        {"", {"door", "0", "locked"}, 11213}};
    double shortest = 100;
    for (const Control &control : controls) {
        SCOPED_TRACE(control.Keys);
        const std::size_t calls = panel_.Calls().size();
        const Stopwatch watch;
        EXPECT_EQ(Ask("SetDoorLock?" + control.Keys), "SetDoorLockResponse?Result=0");
        shortest = std::min(shortest, watch.Seconds());
        EXPECT_THAT(panel_.Calls(calls),
                    ElementsAre(control.Command, AuditCall(control.EventCode)));
    }
    // A busy machine delays some.
    EXPECT_GE(shortest, 1.0);
    EXPECT_LT(shortest, 2.0);
    EXPECT_EQ(agent_.CountMessages("ClientWorker.cpp", "SetDoorLock", "Invalid Token: Unknown"),
              1U);
    EXPECT_THAT(panel_.Journal(), IsEmpty());
}

TEST_F(Door, SetDoorLockAuditsAfterPause)
{
    const Stopwatch watch;
    client_->SendLine("SetDoorLock?Port=1&Control=1");
    ASSERT_TRUE(WaitUntil([&] { return panel_.Calls().size() == 3; }));
    EXPECT_GE(watch.Seconds(), 1.0);
    EXPECT_EQ(client_->ReadLine(), "SetDoorLockResponse?Result=0");
}

TEST_F(Door, UnknownControlRunsNoCommandButPausesAndSucceeds)
{
    for (const char *control : {"3", "-1", "2147483647", "-2147483648"}) {
        const std::size_t calls = panel_.Calls().size();
        const Stopwatch watch;
        EXPECT_EQ(Ask(std::string("SetDoorLock?Port=1&Control=") + control),
                  "SetDoorLockResponse?Result=0");
        EXPECT_GE(watch.Seconds(), 1.0);
        EXPECT_THAT(panel_.Calls(calls), ElementsAre(AuditCall(11212)));
    }
}

TEST_F(Door, UnlockedDoorIsReported)
{
    EXPECT_EQ(Ask("SetDoorLock?Port=2&Control=1"), "SetDoorLockResponse?Result=0");
    EXPECT_EQ(Ask("GetDoorLock?Port=2"), "GetDoorLockResponse?Result=0&Status=1");
    EXPECT_EQ(Ask("SetDoorLock?Port=3&Control=2"), "SetDoorLockResponse?Result=0");
    EXPECT_EQ(Ask("GetDoorInfo?DoorNo=3"),
              "GetDoorInfoResponse?Result=0&DoorNo=3&Name=Inverted front&Status=1");
    EXPECT_EQ(Ask("SetDoorLock?Port=2&Control=0"), "SetDoorLockResponse?Result=0");
    EXPECT_EQ(Ask("GetDoorLock?Port=2"), "GetDoorLockResponse?Result=0&Status=0");
}

TEST_F(Door, CommandSucceedsWhenCommandToolFailsOrIsMissing)
{
    // The panel has no door 99: its tool fails.
    const std::size_t calls = panel_.Calls().size();
    EXPECT_EQ(Ask("SetDoorLock?Port=99&Control=1"), "SetDoorLockResponse?Result=0");
    EXPECT_THAT(panel_.Calls(calls),
                ElementsAre(panel::Call{"door", "99", "unlocked"}, AuditCall(11212)));
    std::filesystem::remove(panel_.Paths().CommandTool);
    EXPECT_EQ(Ask("SetDoorLock?Port=1&Control=0"), "SetDoorLockResponse?Result=0");
    EXPECT_THAT(panel_.Calls(calls), SizeIs(2));
}

TEST_F(Door, SetDoorLockNeedsNoDatabase)
{
    const WithoutDatabases withoutDatabases(panel_);
    EXPECT_EQ(Ask("SetDoorLock?Port=1&Control=1"), "SetDoorLockResponse?Result=0");
    EXPECT_EQ(agent_.CountInLog("sqlite3_open fail"), 0U);
}

TEST_F(DoorSessions, PauseDoesNotDelayOtherSessions)
{
    std::vector<ManagementClient *> clients;
    for (int i = 0; i < 12; ++i)
        clients.push_back(&Connect());
    for (ManagementClient *client : clients)
        EXPECT_EQ(client->Login(panel::kController.Id, panel::kController.Password),
                  "LoginResponse?Result=0");
    const Stopwatch watch;
    for (const ManagementClient *client : clients)
        client->SendLine("SetDoorLock?Port=1&Control=7");
    for (ManagementClient *client : clients)
        EXPECT_EQ(client->ReadLine(), "SetDoorLockResponse?Result=0");
    // One after another would take 12 seconds.
    EXPECT_LT(watch.Seconds(), 10.0);
}

TEST_F(Door, QueriesFailWhileDatabaseCannotBeOpened)
{
    ExpectNeedsDatabase("GetDoorInfo?DoorNo=1");
    ExpectNeedsDatabase("GetDoorInfoEx?");
    ExpectNeedsDatabase("GetDoorLock?Port=1");
    EXPECT_EQ(Ask("GetDoorLock?Port=1"), "GetDoorLockResponse?Result=0&Status=1");
}

TEST_F(Door, ContactStateIsZeroWithoutDoorTable)
{
    panel_.Run("DROP TABLE Door");
    ExpectFails("GetDoorInfo?DoorNo=1");
    ExpectFails("GetDoorInfoEx?");
    EXPECT_EQ(Ask("GetDoorLock?Port=3"), "GetDoorLockResponse?Result=0&Status=1");
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(Door, DoorsAreListedAsLockedWithoutRelayTable)
{
    panel_.Run("DROP TABLE RelayStatus");
    EXPECT_EQ(Ask("GetDoorInfo?DoorNo=1"),
              "GetDoorInfoResponse?Result=0&DoorNo=1&Name=Front door&Status=0");
    EXPECT_EQ(AskList("GetDoorInfoEx?DoorNo=4"),
              ListAnswer("GetDoorInfoEx", 1, 0, {"DoorNo=4&Name=Inverted back&Status=0"}));
    ExpectFails("GetDoorLock?Port=1");
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

} // namespace nimbra::test
