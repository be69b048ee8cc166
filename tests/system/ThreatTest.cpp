// The threat levels that the panel defines, and the current one.

#include "support/CommandTest.h"
#include "support/Files.h"
#include "support/Program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace nimbra::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char kSetAnswer[] = "SetThreatLevelResponse?Result=0";

class Threat : public CommandTest
{
protected:
    /// Shows that a level is stored in every row, announced and then audited, but not journalled.
    void ExpectSets(const std::string &request, const std::string &level)
    {
        SCOPED_TRACE(request);
        const std::size_t calls = panel_.Calls().size();
        EXPECT_EQ(Ask(request), kSetAnswer);
        EXPECT_THAT(panel_.Calls(calls), ElementsAre(panel::Call{"savethreat"}, AuditCall(10803)));
        EXPECT_EQ(CurrentLevel(), level);
        EXPECT_THAT(panel_.Journal(), IsEmpty());
    }

    /// The current level, from every row of its table.
    [[nodiscard]] std::string CurrentLevel() const
    {
        return panel_.Value("SELECT GROUP_CONCAT(DISTINCT ThreatStatus) FROM Threat");
    }
};

std::vector<std::string> SampleLevels()
{
    std::vector<std::string> rows;
    for (const char *name : panel::kThreatLevels)
        rows.push_back("Level=" + std::to_string(rows.size() + 1) + "&Desc=" + name);
    return rows;
}

TEST_F(Threat, GetThreatInfoReturnsNameOfLevel)
{
    for (const std::string &row : SampleLevels()) {
        const std::string level = row.substr(0, row.find('&'));
        EXPECT_EQ(Ask("GetThreatInfo?" + level), "GetThreatInfoResponse?Result=0&" + row);
    }
}

TEST_F(Threat, GetThreatInfoWithoutNumberReadsLevelZero)
{
    panel_.Run("INSERT INTO ThreatLevel VALUES (0, 'None')");
    const std::string zero = "GetThreatInfoResponse?Result=0&Level=0&Desc=None";
    for (const char *keys : {"", "Level=high", "Colour=3"})
        EXPECT_EQ(Ask(std::string("GetThreatInfo?") + keys), zero) << keys;
}

TEST_F(Threat, GetThreatInfoFailsForUndefinedLevel)
{
    for (const char *level : {"0", "6", "-1", "2147483647"})
        ExpectFails(std::string("GetThreatInfo?Level=") + level);
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(Threat, NamesAreCutAt32BytesAndOtherwiseUnchanged)
{
    panel_.Run("INSERT INTO ThreatLevel VALUES (11, NULL), (12, ''), (13, printf('%.*c', 33, 'x')),"
               " (14, printf('%.*c', 32, 'y')), (15, 'a&b=c%s''\"')");
    std::vector<std::string> rows = SampleLevels();
    for (const std::string &row :
         {std::string("Level=11&Desc="), std::string("Level=12&Desc="),
          "Level=13&Desc=" + std::string(32, 'x'), "Level=14&Desc=" + std::string(32, 'y'),
          std::string("Level=15&Desc=a&b=c%s'\"")}) {
        EXPECT_EQ(Ask("GetThreatInfo?" + row.substr(0, row.find('&'))),
                  "GetThreatInfoResponse?Result=0&" + row);
        rows.push_back(row);
    }
    EXPECT_EQ(AskList("GetThreatInfoEx?"), ListAnswer("GetThreatInfoEx", rows.size(), 0, rows));
}

TEST_F(Threat, ListHoldsEveryLevelForAnyPage)
{
    const std::vector<std::string> rows = SampleLevels();
    const auto answer = [&](int offset) {
        return ListAnswer("GetThreatInfoEx", rows.size(), offset, rows);
    };
    EXPECT_EQ(AskList("GetThreatInfoEx?"), answer(0));
    EXPECT_EQ(AskList("GetThreatInfoEx?Offset=2&Limit=1"), answer(2));
    EXPECT_EQ(AskList("GetThreatInfoEx?Offset=100"), answer(100));
    EXPECT_EQ(AskList("GetThreatInfoEx?Limit=-1&Offset=-7"), answer(-7));
}

TEST_F(Threat, ListKeepsDatabaseOrder)
{
    panel_.Run("DROP TABLE ThreatLevel; CREATE TABLE ThreatLevel (Level INTEGER, ThreatName TEXT);"
               "INSERT INTO ThreatLevel VALUES (3, 'c'), (1, 'a'), (NULL, NULL), (2, 'b')");
    EXPECT_EQ(AskList("GetThreatInfoEx?"),
              ListAnswer("GetThreatInfoEx", 4, 0,
                         {"Level=3&Desc=c", "Level=1&Desc=a", "Level=0&Desc=", "Level=2&Desc=b"}));
}

TEST_F(Threat, EmptyListFails)
{
    panel_.Run("DELETE FROM ThreatLevel");
    ExpectFails("GetThreatInfoEx?Offset=2&Limit=1");
    panel_.Run("DROP TABLE ThreatLevel");
    ExpectFails("GetThreatInfoEx?");
    ExpectFails("GetThreatInfo?Level=1");
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(Threat, GetThreatLevelReadsFirstRow)
{
    EXPECT_EQ(Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=" +
                                          std::to_string(panel::kThreatInForce));
    panel_.Run("UPDATE Threat SET ThreatStatus=-3; INSERT INTO Threat VALUES (2, 4)");
    EXPECT_EQ(Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=-3");
    panel_.Run("UPDATE Threat SET ThreatStatus=NULL WHERE No=1");
    EXPECT_EQ(Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=0");
}

TEST_F(Threat, GetThreatLevelIgnoresKeys)
{
    EXPECT_EQ(Ask("getthreatlevel?Unknown=1&ThreatLevel=5"),
              "GetThreatLevelResponse?Result=0&ThreatLevel=1");
    EXPECT_EQ(agent_.CountInLog("Invalid Token"), 0U);
}

TEST_F(Threat, GetThreatLevelFailsForEmptyTable)
{
    panel_.Run("DELETE FROM Threat");
    ExpectFails("GetThreatLevel?");
    panel_.Run("DROP TABLE Threat");
    ExpectFails("GetThreatLevel?");
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(Threat, SetThreatLevelStoresAnnouncesAndAudits)
{
    ExpectSets("SetThreatLevel?ThreatLevel=4", "4");
    EXPECT_EQ(Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=4");
    ExpectSets("setthreatlevel?Unknown=2&THREATLEVEL=2", "2");
    EXPECT_EQ(agent_.CountMessages("ClientWorker.cpp", "SetThreatLevel", "Invalid Token: Unknown"),
              1U);
}

TEST_F(Threat, SetThreatLevelChangesEveryRowAndNothingElse)
{
    panel_.Run("INSERT INTO Threat VALUES (2, 9), (3, NULL)");
    std::vector<std::string> expected = TestPanel::Dump(panel_.Paths().MainDatabase);
    for (std::string &line : expected)
        if (line.starts_with("Threat: "))
            line = line.substr(0, line.find(',')) + ", 3";
    ExpectSets("SetThreatLevel?ThreatLevel=3", "3");
    EXPECT_EQ(TestPanel::Dump(panel_.Paths().MainDatabase), expected);
}

TEST_F(Threat, SetThreatLevelAcceptsAnyNumber)
{
    ExpectSets("SetThreatLevel?", "0");
    ExpectSets("SetThreatLevel?ThreatLevel=99", "99");
    ExpectSets("SetThreatLevel?ThreatLevel=-2147483648", "-2147483648");
}

TEST_F(Threat, SetThreatLevelAnnouncesForEmptyTable)
{
    panel_.Run("DELETE FROM Threat");
    ExpectSets("SetThreatLevel?ThreatLevel=2", "");
}

TEST_F(Threat, SetThreatLevelStoresBeforeAnnouncing)
{
    ReplaceProgram(panel_.Paths().CommandTool, "cp /tmp/NimbraDB/Nimbra.db /nimbra/at-$1.db");
    EXPECT_EQ(Ask("SetThreatLevel?ThreatLevel=5"), kSetAnswer);
    for (const char *moment : {"/nimbra/at-savethreat.db", "/nimbra/at-log.db"})
        EXPECT_THAT(TestPanel::Rows(moment, "SELECT ThreatStatus FROM Threat"),
                    ElementsAre(Row{"5"}));
}

TEST_F(Threat, SetThreatLevelClosesDatabaseBeforeAnnouncing)
{
    ReplaceProgram(panel_.Paths().CommandTool,
                   "ls -l /proc/" + std::to_string(agent_.Pid()) + "/fd >/nimbra/open-$1");
    EXPECT_EQ(Ask("SetThreatLevel?ThreatLevel=5"), kSetAnswer);
    const std::string open = ReadFile("/nimbra/open-savethreat");
    EXPECT_THAT(open, HasSubstr("socket:"));
    EXPECT_THAT(open, Not(HasSubstr("Nimbra.db")));
}

TEST_F(Threat, SetThreatLevelAnswersAfterBothCalls)
{
    ReplaceProgram(panel_.Paths().CommandTool,
                   "while [ ! -e /nimbra/end-$1 ]; do sleep 0.05; done; touch /nimbra/ended-$1");
    client_->SendLine("SetThreatLevel?ThreatLevel=5");
    EXPECT_TRUE(client_->IsSilent(milliseconds(500)));
    WriteFile("/nimbra/end-savethreat", "");
    EXPECT_TRUE(WaitUntil([] { return std::filesystem::exists("/nimbra/ended-savethreat"); }));
    EXPECT_TRUE(client_->IsSilent(milliseconds(500)));
    WriteFile("/nimbra/end-log", "");
    EXPECT_EQ(client_->ReadLine(), kSetAnswer);
    EXPECT_TRUE(std::filesystem::exists("/nimbra/ended-log"));
}

TEST_F(Threat, SetThreatLevelSucceedsWhenCommandToolFails)
{
    ReplaceProgram(panel_.Paths().CommandTool, "exit 3");
    EXPECT_EQ(Ask("SetThreatLevel?ThreatLevel=3"), kSetAnswer);
    EXPECT_EQ(CurrentLevel(), "3");
    std::filesystem::remove(panel_.Paths().CommandTool);
    EXPECT_EQ(Ask("SetThreatLevel?ThreatLevel=4"), kSetAnswer);
    EXPECT_EQ(CurrentLevel(), "4");
}

TEST_F(Threat, FailedSetThreatLevelIsNeitherAnnouncedNorAudited)
{
    panel_.Run("CREATE TRIGGER Refuse BEFORE UPDATE ON Threat BEGIN"
               " SELECT RAISE(ABORT, 'refused'); END");
    ExpectBreaksOff("SetThreatLevel?ThreatLevel=4", {});
    EXPECT_EQ(CurrentLevel(), "1");
    panel_.Run("DROP TABLE Threat");
    ExpectBreaksOff("SetThreatLevel?ThreatLevel=4", {});
}

TEST_F(Threat, EachCommandFailsWhileDatabaseCannotBeOpened)
{
    for (const char *request : {"GetThreatInfo?Level=1", "GetThreatInfoEx?", "GetThreatLevel?",
                                "SetThreatLevel?ThreatLevel=2"})
        ExpectNeedsDatabase(request);
    ExpectSets("SetThreatLevel?ThreatLevel=2", "2");
}

TEST_F(Threat, CommandsReadTheirKeysInAnyCase)
{
    ExpectReadsKeys("GetThreatInfo?Level=2");
    ExpectReadsKeys("GetThreatInfoEx?Offset=3&Limit=4");
    ExpectReadsKeys("SetThreatLevel?ThreatLevel=2");
}

} // namespace
} // namespace nimbra::test
