#include "simulator/panel/SamplePanel.h"

#include "simulator/panel/Sqlite.h"
#include "support/Files.h"
#include "support/Program.h"
#include "support/TestPanel.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <thread>

namespace nimbra::test {

namespace fs = std::filesystem;

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr char kTool[] = "/nimbra/sbin/nimbra-cgi";
constexpr char kSamplePanel[] = NIMBRA_BUILD_DIRECTORY "/bin/nimbra-sample-panel";

int Tool(const panel::Call &arguments)
{
    std::vector<std::string> command{kTool};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return RunProgram(command).Status;
}

/// Whether the door is unlocked, from its relay and its contact state.
bool IsUnlocked(const TestPanel &panel, int door)
{
    const std::string number = std::to_string(door);
    const std::string relay =
        panel.Value("SELECT RelayOn FROM RelayStatus WHERE Type=3 AND No=" + number);
    const std::string contact =
        panel.Value("SELECT IFNULL(DoorContactState, 0) FROM Door WHERE No=" + number);
    return (relay == "1") == (contact == "0");
}

std::string Count(const TestPanel &panel, const std::string &table)
{
    return panel.Value("SELECT COUNT(*) FROM " + table);
}

/// A machine without a panel.
class SamplePanelProgram : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const char *path : {"/tmp/NimbraDB", "/nimbra/elsewhere"})
            fs::remove_all(path);
    }
};

} // namespace

TEST(SamplePanel, HasAsManyRowsAsRequested)
{
    const TestPanel panel({.Events = 7, .Users = 5, .Cards = 9, .Doors = 10});
    EXPECT_EQ(panel.Rows(panel.Paths().LogDatabase, "SELECT COUNT(*) FROM Log")[0][0], "7");
    EXPECT_EQ(Count(panel, "User"), "5");
    EXPECT_EQ(Count(panel, "Card"), "9");
    EXPECT_EQ(Count(panel, "Door"), "10");
    EXPECT_EQ(Count(panel, "RelayStatus WHERE Type=3"), "9") << "door 7 has no lock relay";
    EXPECT_EQ(Count(panel, "RelayStatus WHERE Type=2"), "4");
    EXPECT_EQ(Count(panel, "Controller"), "1");
    EXPECT_EQ(Count(panel, "Cloud WHERE Enabled=0 AND DevicePort=9000"), "1");
    EXPECT_EQ(Count(panel, "DBQueryInfo"), "0");
    EXPECT_EQ(Count(panel, "EventCode"), std::to_string(panel::kEventCodes.size()));
    EXPECT_EQ(Count(panel, "GroupTable WHERE GroupKind=5"), "3");
    EXPECT_EQ(Count(panel, "DVR"), "7");
    EXPECT_EQ(Count(panel, "DVRChannel"), std::to_string(panel::kChannels.size()));
    EXPECT_EQ(TestPanel::Rows(panel.Paths().NetworkDatabase,
                              "SELECT IPAddress, Model, Type FROM Network"),
              (std::vector<Row>{{"192.168.77.10", "11", "64"}}));
}

TEST(SamplePanel, HoldsTheExpectedEventForEachNumber)
{
    constexpr int kEvents = 100'000;
    const TestPanel panel({.Events = kEvents});
    const std::vector<Row> rows = TestPanel::Rows(
        panel.Paths().LogDatabase,
        "SELECT No, Date, Type, IFNULL(Port, 0), IFNULL(DeviceName, ''), EventCode,"
        " IFNULL(CardNo, 0), IFNULL(UserNo, 0), IFNULL(UserName, ''), IFNULL(Res1, 0)"
        " FROM Log ORDER BY No");
    ASSERT_EQ(rows.size(), static_cast<std::size_t>(kEvents));
    for (int no = 1; no <= kEvents; ++no) {
        const panel::SampleEvent event = panel::ExpectedEvent(no);
        const auto text = [](int value) { return std::to_string(value); };
        ASSERT_EQ(rows[static_cast<std::size_t>(no - 1)],
                  (Row{text(no), text(event.Date), text(event.Type), text(event.Port),
                       event.DeviceName, text(event.EventCode), text(event.CardNo),
                       text(event.UserNo), event.UserName, text(event.VideoTag)}));
    }
}

TEST(SamplePanel, NamesTheCodeOfEachEvent)
{
    const TestPanel panel;
    for (int no = 1; no <= 60; ++no) {
        const panel::SampleEvent event = panel::ExpectedEvent(no);
        EXPECT_FALSE(event.EventDesc.empty());
        EXPECT_EQ(panel.Value("SELECT Name FROM EventCode WHERE EventCode=" +
                              std::to_string(event.EventCode)),
                  event.EventDesc);
    }
}

TEST(SamplePanel, HoldsTheExpectedUsersAndCards)
{
    const panel::PanelSize size{.Events = 1, .Users = 1000, .Cards = 1500, .Doors = 1};
    const TestPanel panel(size);
    const std::vector<Row> users =
        panel.Rows("SELECT No, FirstName, IFNULL(MiddleName, ''), LastName, IFNULL(Phone, ''),"
                   " IFNULL(CellPhone, ''), Email, IFNULL(Ada, 0), IFNULL(Exempt, 0),"
                   " IFNULL(ThreatLevel, 0), IFNULL(ImageFile, '') FROM User ORDER BY No");
    ASSERT_EQ(users.size(), 1000U);
    for (const Row &row : users) {
        const panel::SampleUser user = panel::ExpectedUser(std::stoi(row[0]));
        ASSERT_EQ(row, (Row{std::to_string(user.No), user.FirstName, user.MiddleName, user.LastName,
                            user.Phone, user.CellPhone, user.Email, std::to_string(user.Ada),
                            std::to_string(user.Exempt), std::to_string(user.ThreatLevel),
                            user.ImageFile}));
    }
    const std::vector<Row> cards =
        panel.Rows("SELECT No, UserNo, CardFormatNo, CardNo, IFNULL(ExpDate, 0), SelectType,"
                   " IFNULL((SELECT GROUP_CONCAT(AccessLevelNo, ' ') FROM CardAccessLevel"
                   " WHERE CardNo=Card.No), '') FROM Card ORDER BY No");
    ASSERT_EQ(cards.size(), 1500U);
    for (const Row &row : cards) {
        const panel::SampleCard card = panel::ExpectedCard(std::stoi(row[0]), size);
        ASSERT_EQ(row,
                  (Row{std::to_string(card.No), std::to_string(card.UserNo),
                       std::to_string(card.FormatNo), card.CardNumber, std::to_string(card.ExpDate),
                       std::to_string(card.SelectType), card.AccessLevels}));
    }
}

TEST(SamplePanel, HoldsTheExpectedDoors)
{
    const TestPanel panel({.Doors = 64});
    for (int no = 1; no <= 64; ++no) {
        const panel::SampleDoor door = panel::ExpectedDoor(no);
        EXPECT_EQ(panel.Rows("SELECT Name, Disable, IFNULL(DoorContactState, 0) FROM Door"
                             " WHERE No=" +
                             std::to_string(no)),
                  (std::vector<Row>{
                      {door.Name, door.Disabled ? "1" : "0", std::to_string(door.ContactState)}}));
        EXPECT_TRUE(!door.HasRelay || IsUnlocked(panel, no) == door.Unlocked) << no;
    }
}

TEST(SamplePanel, HasUserImages)
{
    const TestPanel panel;
    const auto image = [&panel](int user) {
        return panel.Paths().Images / panel::ExpectedUser(user).ImageFile;
    };
    EXPECT_EQ(ReadFile(image(1)).substr(0, 3), "\xFF\xD8\xFF");
    EXPECT_EQ(ReadFile(image(2)).substr(1, 3), "PNG");
    EXPECT_TRUE(fs::exists(image(3)));
    EXPECT_EQ(image(3).filename().string().size(), 4U);
    EXPECT_FALSE(fs::exists(image(5)));
    EXPECT_EQ(fs::file_size(image(6)), 0U);
}

TEST(SamplePanel, IsReplacedCompletely)
{
    const TestPanel first;
    first.Run("DELETE FROM User");
    EXPECT_EQ(Tool({"savethreat"}), 0);
    WriteFile(first.Paths().Images / "stray.jpg", "x");
    const TestPanel second;
    EXPECT_EQ(Count(second, "User"), "12");
    EXPECT_TRUE(second.Calls().empty());
    EXPECT_FALSE(fs::exists(second.Paths().Images / "stray.jpg"));
}

TEST(Ifconfig, PrintsTheHardwareAddressOfTheGivenInterfaceOnly)
{
    const TestPanel panel;
    const ProgramResult wired = RunProgram({"/nimbra/bin/ifconfig", "eth0"});
    EXPECT_EQ(wired.Status, 0);
    EXPECT_EQ(wired.Output.substr(0, wired.Output.find('\n')),
              "eth0      Link encap:Ethernet  HWaddr 00:1a:2b:3c:4d:5e  ");
    EXPECT_THAT(RunProgram({"/nimbra/bin/ifconfig", "lo"}).Output, Not(HasSubstr("HWaddr")));
    const ProgramResult unknown = RunProgram({"/nimbra/bin/ifconfig", "eth1"});
    EXPECT_EQ(unknown.Status, 1);
    EXPECT_THAT(unknown.Output, Not(HasSubstr("HWaddr")));
}

TEST(CommandTool, LocksAndUnlocksDoorsOfBothContactSenses)
{
    const TestPanel panel;
    ASSERT_EQ(panel.Value("SELECT DoorContactState FROM Door WHERE No=3"), "1");
    for (const char *door : {"2", "3"}) {
        const int no = std::stoi(door);
        EXPECT_EQ(Tool({"door", door, "locked"}), 0);
        EXPECT_FALSE(IsUnlocked(panel, no)) << door;
        EXPECT_EQ(Tool({"door", door, "unlocked"}), 0);
        EXPECT_TRUE(IsUnlocked(panel, no)) << door;
        EXPECT_EQ(Tool({"door", door, "locked"}), 0);
        EXPECT_EQ(Tool({"door", door, "m_unlock"}), 0);
        EXPECT_TRUE(IsUnlocked(panel, no)) << door;
    }
}

TEST(CommandTool, ChangesOneRelayOnly)
{
    const TestPanel panel;
    const std::string others = "SELECT * FROM RelayStatus WHERE NOT (Type=3 AND No=1)";
    const std::vector<Row> before = panel.Rows(others);
    EXPECT_EQ(Tool({"door", "1", "unlocked"}), 0);
    EXPECT_EQ(panel.Rows(others), before);
}

TEST(CommandTool, SwitchesAuxOutputs)
{
    const TestPanel panel;
    const std::string relay = "SELECT RelayOn FROM RelayStatus WHERE Type=2 AND No=4";
    EXPECT_EQ(Tool({"auxout", "4", "on"}), 0);
    EXPECT_EQ(panel.Value(relay), "1");
    EXPECT_EQ(Tool({"auxout", "4", "off"}), 0);
    EXPECT_EQ(panel.Value(relay), "0");
}

TEST(CommandTool, AddsAnEventToTheLog)
{
    const TestPanel panel;
    EXPECT_EQ(Tool({"log", "1", "192.168.77.20", "0", "15107", "0", "0", "operator", "0", "0"}), 0);
    EXPECT_EQ(
        panel.Rows(panel.Paths().LogDatabase,
                   "SELECT No, Type, DeviceName, Port, EventCode, CardNo, UserNo, UserName,"
                   " ABS(Date - strftime('%s', 'now')) < 100 FROM Log WHERE No > 60"),
        (std::vector<Row>{{"61", "1", "192.168.77.20", "0", "15107", "0", "0", "operator", "1"}}));
}

TEST(CommandTool, RefusesAndRecordsCallsThatNoPanelKnows)
{
    const TestPanel panel;
    const std::vector<panel::Call> calls = {
        {},
        {"door", "99", "locked"},
        {"door", "7", "locked"},
        {"door", "1", "open"},
        {"door", "1x", "locked"},
        {"auxout", "9", "on"},
        {"auxout", "1", "maybe"},
        {"log", "1", "127.0.0.1"},
        {"log", "1", "127.0.0.1", "0", "code", "0", "0", "x", "0", "0"},
        {"reboot"}};
    for (const panel::Call &call : calls)
        EXPECT_EQ(Tool(call), 1) << ::testing::PrintToString(call);
    EXPECT_EQ(panel.Calls(), calls);
}

TEST(CommandTool, RecordsArgumentsByteForByte)
{
    const TestPanel panel;
    const panel::Call call = {
        "log",        "",           " two  spaces ",          R"("quoted" \ 'text')",
        "line\nfeed", "Zo\xC3\xAB", "\xFF\xC3 no UTF-8 \x80", "\x01\x7F"};
    EXPECT_EQ(Tool(call), 1);
    EXPECT_EQ(panel.Calls(), std::vector<panel::Call>{call});
}

TEST(CommandTool, KeepsEachOfManyCallsMadeAtTheSameTime)
{
    const TestPanel panel;
    constexpr int kCallers = 8;
    constexpr int kCallsEach = 5;
    std::vector<std::thread> callers;
    for (int caller = 1; caller <= kCallers; ++caller) {
        callers.emplace_back([caller] {
            for (int i = 0; i < kCallsEach; ++i)
                EXPECT_EQ(Tool({"log", "1", "10.0.0." + std::to_string(caller), "0",
                                std::to_string(15107 + i), "0", "0", "many", "0", "0"}),
                          0);
        });
    }
    for (std::thread &caller : callers)
        caller.join();
    EXPECT_EQ(panel.Calls().size(), static_cast<std::size_t>(kCallers * kCallsEach));
    EXPECT_EQ(panel.Rows(panel.Paths().LogDatabase,
                         "SELECT COUNT(*), COUNT(DISTINCT DeviceName || EventCode), MAX(No)"
                         " FROM Log WHERE UserName='many'"),
              (std::vector<Row>{{"40", "40", "100"}}));
}

TEST(CommandTool, WaitsForADatabaseThatIsLocked)
{
    const TestPanel panel;
    panel::SqliteFile holder(panel.Paths().MainDatabase);
    holder.Run("BEGIN EXCLUSIVE");
    const Stopwatch watch;
    std::thread release([&holder] {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        holder.Run("COMMIT");
    });
    EXPECT_EQ(Tool({"auxout", "1", "on"}), 0);
    EXPECT_GE(watch.Seconds(), 0.4);
    release.join();
    EXPECT_EQ(panel.Value("SELECT RelayOn FROM RelayStatus WHERE Type=2 AND No=1"), "1");
}

TEST_F(SamplePanelProgram, CreatesAPanelBelowAnotherRoot)
{
    const ProgramResult result = RunProgram(
        {kSamplePanel, "--root", "/nimbra/elsewhere", "--events", "3", "--doors", "2", "--cloud"});
    EXPECT_EQ(result.Status, 0) << result.Output;
    EXPECT_THAT(result.Output, HasSubstr("admin1234"));
    EXPECT_FALSE(fs::exists("/tmp/NimbraDB"));
    const panel::PanelPaths paths("/nimbra/elsewhere");
    EXPECT_EQ(TestPanel::Rows(paths.MainDatabase, "SELECT Enabled FROM Cloud"),
              (std::vector<Row>{{"1"}}));

    EXPECT_EQ(RunProgram({paths.CommandTool, "door", "1", "unlocked"}).Status, 0);
    EXPECT_EQ(panel::ReadCalls(paths.CallLog),
              (std::vector<panel::Call>{{"door", "1", "unlocked"}}));
    EXPECT_EQ(TestPanel::Rows(paths.MainDatabase,
                              "SELECT RelayOn FROM RelayStatus WHERE Type=3 AND No=1"),
              (std::vector<Row>{{"1"}}));
}

TEST_F(SamplePanelProgram, ReplacesAPanelOnlyWhenForced)
{
    ASSERT_EQ(RunProgram({kSamplePanel}).Status, 0);
    ASSERT_EQ(RunProgram({kTool, "savethreat"}).Status, 0);
    const ProgramResult refused = RunProgram({kSamplePanel, "--users", "2"});
    EXPECT_EQ(refused.Status, 1);
    EXPECT_THAT(refused.Output, HasSubstr("/tmp/NimbraDB/Nimbra.db exists"));
    EXPECT_EQ(panel::ReadCalls("/nimbra/var/calls.log").size(), 1U);
    EXPECT_EQ(RunProgram({kSamplePanel, "--users", "2", "--force"}).Status, 0);
    EXPECT_TRUE(panel::ReadCalls("/nimbra/var/calls.log").empty());
}

TEST_F(SamplePanelProgram, RefusesWrongNumbers)
{
    EXPECT_NE(RunProgram({kSamplePanel, "--events", "-1"}).Status, 0);
    EXPECT_NE(RunProgram({kSamplePanel, "--doors", "many"}).Status, 0);
    EXPECT_FALSE(fs::exists("/tmp/NimbraDB"));
}

} // namespace nimbra::test
