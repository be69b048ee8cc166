// The threat levels that the panel defines, and the one in force.

#include "support/CommandTest.h"
#include "support/Files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace nimbra::test {
namespace {

constexpr char kSetAnswer[] = "SetThreatLevelResponse?Result=0";
const panel::Call kAnnouncement = {"savethreat"};

class Threat : public CommandTest
{
protected:
    /// Shows that a level is stored in every row, announced and then audited, and not journalled.
    void ExpectSets(const std::string &request, const std::string &level)
    {
        SCOPED_TRACE(request);
        const std::size_t calls = panel_.Calls().size();
        EXPECT_EQ(Ask(request), kSetAnswer);
        EXPECT_EQ(panel_.Calls(calls), std::vector<panel::Call>({kAnnouncement, AuditCall(10803)}));
        EXPECT_EQ(InForce(), level);
        EXPECT_EQ(panel_.Journal(), std::vector<std::string>());
    }

    /// The level in force, from every row of its table.
    [[nodiscard]] std::string InForce() const
    {
        return panel_.Value("SELECT GROUP_CONCAT(DISTINCT ThreatStatus) FROM Threat");
    }

    /// Puts a shell script in the place of the command tool; it is given the tool's arguments.
    void ReplaceTool(const std::string &script) const
    {
        const std::filesystem::path tool = panel_.Paths().CommandTool;
        std::filesystem::remove(tool);
        WriteFile(tool, "#!/bin/sh\n" + script + "\n");
        std::filesystem::permissions(tool, std::filesystem::perms(0755));
    }
};

std::vector<std::string> SampleLevels()
{
    std::vector<std::string> rows;
    for (const char *name : panel::kThreatLevels)
        rows.push_back("Level=" + std::to_string(rows.size() + 1) + "&Desc=" + name);
    return rows;
}

TEST_F(Threat, InfoNamesEachLevel)
{
    for (const std::string &row : SampleLevels()) {
        const std::string level = row.substr(0, row.find('&'));
        EXPECT_EQ(Ask("GetThreatInfo?" + level), "GetThreatInfoResponse?Result=0&" + row);
    }
}

TEST_F(Threat, InfoTakesTheNumberAsTheTextBegins)
{
    panel_.Run("INSERT INTO ThreatLevel VALUES (0, 'None'), (-4, 'Below')");
    const std::string zero = "GetThreatInfoResponse?Result=0&Level=0&Desc=None";
    for (const char *keys : {"", "Level", "Level=", "Level=high", "Colour=3", "Level=4294967296"})
        EXPECT_EQ(Ask(std::string("GetThreatInfo?") + keys), zero) << keys;
    EXPECT_EQ(Ask("GetThreatInfo?Level= -4.9"),
              "GetThreatInfoResponse?Result=0&Level=-4&Desc=Below");
    EXPECT_EQ(Ask("GetThreatInfo?Level=5&Level=1"),
              "GetThreatInfoResponse?Result=0&Level=1&Desc=Low");
}

TEST_F(Threat, InfoOfAnUndefinedLevelFails)
{
    for (const char *level : {"0", "6", "-1", "2147483647"})
        ExpectFails(std::string("GetThreatInfo?Level=") + level);
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(Threat, NamesAreCutAtTheirFieldAndElseAsTheyStand)
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

TEST_F(Threat, ListHoldsEveryLevelWhateverPageIsAskedFor)
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

TEST_F(Threat, ListKeepsTheOrderOfTheDatabase)
{
    panel_.Run("DROP TABLE ThreatLevel; CREATE TABLE ThreatLevel (Level INTEGER, ThreatName TEXT);"
               "INSERT INTO ThreatLevel VALUES (3, 'c'), (1, 'a'), (NULL, NULL), (2, 'b')");
    EXPECT_EQ(AskList("GetThreatInfoEx?"),
              ListAnswer("GetThreatInfoEx", 4, 0,
                         {"Level=3&Desc=c", "Level=1&Desc=a", "Level=0&Desc=", "Level=2&Desc=b"}));
}

TEST_F(Threat, ListOfNoLevelsFails)
{
    panel_.Run("DELETE FROM ThreatLevel");
    ExpectFails("GetThreatInfoEx?Offset=2&Limit=1");
    panel_.Run("DROP TABLE ThreatLevel");
    ExpectFails("GetThreatInfoEx?");
    ExpectFails("GetThreatInfo?Level=1");
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(Threat, LevelInForceIsThatOfTheFirstRow)
{
    EXPECT_EQ(Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=" +
                                          std::to_string(panel::kThreatInForce));
    panel_.Run("UPDATE Threat SET ThreatStatus=-3; INSERT INTO Threat VALUES (2, 4)");
    EXPECT_EQ(Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=-3");
    panel_.Run("UPDATE Threat SET ThreatStatus=NULL WHERE No=1");
    EXPECT_EQ(Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=0");
}

TEST_F(Threat, LevelInForceIsReadWithoutLookingAtTheKeys)
{
    EXPECT_EQ(Ask("getthreatlevel?Unknown=1&ThreatLevel=5"),
              "GetThreatLevelResponse?Result=0&ThreatLevel=1");
    EXPECT_EQ(agent_.CountInLog("Invalid Token"), 0U);
}

TEST_F(Threat, LevelOfAnEmptyTableFails)
{
    panel_.Run("DELETE FROM Threat");
    ExpectFails("GetThreatLevel?");
    panel_.Run("DROP TABLE Threat");
    ExpectFails("GetThreatLevel?");
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(Threat, LevelIsStoredAnnouncedAuditedAndThenAnswered)
{
    ExpectSets("SetThreatLevel?ThreatLevel=4", "4");
    EXPECT_EQ(Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=4");
    ExpectSets("setthreatlevel?Unknown=2&THREATLEVEL=2", "2");
    EXPECT_EQ(agent_.CountMessages("ClientWorker.cpp", "SetThreatLevel", "Invalid Token: Unknown"),
              1U);
}

TEST_F(Threat, LevelIsSetInEveryRowAndInNothingElse)
{
    panel_.Run("INSERT INTO Threat VALUES (2, 9), (3, NULL)");
    std::vector<std::string> expected = TestPanel::Dump(panel_.Paths().MainDatabase);
    for (std::string &line : expected)
        if (line.rfind("Threat: ", 0) == 0)
            line = line.substr(0, line.find(',')) + ", 3";
    ExpectSets("SetThreatLevel?ThreatLevel=3", "3");
    EXPECT_EQ(TestPanel::Dump(panel_.Paths().MainDatabase), expected);
}

TEST_F(Threat, LevelMayBeAnyNumber)
{
    ExpectSets("SetThreatLevel?", "0");
    ExpectSets("SetThreatLevel?ThreatLevel=99", "99");
    ExpectSets("SetThreatLevel?ThreatLevel=-5", "-5");
    ExpectSets("SetThreatLevel?ThreatLevel=2147483647", "2147483647");
    ExpectSets("SetThreatLevel?ThreatLevel=-2147483648", "-2147483648");
    ExpectSets("SetThreatLevel?ThreatLevel=4294967299", "3");
    ExpectSets("SetThreatLevel?ThreatLevel=severe", "0");
    ExpectSets("SetThreatLevel?Level=5", "0");
}

TEST_F(Threat, LevelOfAnEmptyTableIsAnnouncedAllTheSame)
{
    panel_.Run("DELETE FROM Threat");
    ExpectSets("SetThreatLevel?ThreatLevel=2", "");
}

TEST_F(Threat, LevelStandsInTheDatabaseWhenItIsAnnounced)
{
    ReplaceTool("cp /tmp/NimbraDB/Nimbra.db /tmp/at-$1.db");
    EXPECT_EQ(Ask("SetThreatLevel?ThreatLevel=5"), kSetAnswer);
    for (const char *moment : {"/tmp/at-savethreat.db", "/tmp/at-log.db"})
        EXPECT_EQ(TestPanel::Rows(moment, "SELECT ThreatStatus FROM Threat"),
                  std::vector<Row>({{"5"}}));
}

TEST_F(Threat, TheDatabaseIsClosedWhenTheLevelIsAnnounced)
{
    ReplaceTool("ls -l /proc/" + std::to_string(agent_.Pid()) + "/fd >/tmp/open-$1");
    EXPECT_EQ(Ask("SetThreatLevel?ThreatLevel=5"), kSetAnswer);
    const std::string open = ReadFile("/tmp/open-savethreat");
    EXPECT_NE(open.find("socket:"), std::string::npos) << open;
    EXPECT_EQ(open.find("Nimbra.db"), std::string::npos) << open;
}

TEST_F(Threat, LevelIsAnsweredAfterBothCallsHaveEnded)
{
    ReplaceTool("while [ ! -e /tmp/end-$1 ]; do sleep 0.05; done; touch /tmp/ended-$1");
    client_->SendLine("SetThreatLevel?ThreatLevel=5");
    EXPECT_TRUE(client_->IsSilent(milliseconds(500)));
    WriteFile("/tmp/end-savethreat", "");
    EXPECT_TRUE(WaitUntil([] { return std::filesystem::exists("/tmp/ended-savethreat"); }));
    EXPECT_TRUE(client_->IsSilent(milliseconds(500)));
    WriteFile("/tmp/end-log", "");
    EXPECT_EQ(client_->ReadLine(), kSetAnswer);
    EXPECT_TRUE(std::filesystem::exists("/tmp/ended-log"));
}

TEST_F(Threat, LevelIsSetWhateverBecomesOfTheCommandTool)
{
    ReplaceTool("exit 3");
    EXPECT_EQ(Ask("SetThreatLevel?ThreatLevel=3"), kSetAnswer);
    EXPECT_EQ(InForce(), "3");
    std::filesystem::remove(panel_.Paths().CommandTool);
    EXPECT_EQ(Ask("SetThreatLevel?ThreatLevel=4"), kSetAnswer);
    EXPECT_EQ(InForce(), "4");
}

TEST_F(Threat, LevelThatCannotBeStoredIsNeitherAnnouncedNorAudited)
{
    panel_.Run("CREATE TRIGGER Refuse BEFORE UPDATE ON Threat BEGIN"
               " SELECT RAISE(ABORT, 'refused'); END");
    ExpectBreaksOff("SetThreatLevel?ThreatLevel=4", {});
    EXPECT_EQ(InForce(), "1");
    panel_.Run("DROP TABLE Threat");
    ExpectBreaksOff("SetThreatLevel?ThreatLevel=4", {});
}

TEST_F(Threat, CommandsNeedTheDatabase)
{
    for (const char *request : {"GetThreatInfo?Level=1", "GetThreatInfoEx?", "GetThreatLevel?",
                                "SetThreatLevel?ThreatLevel=2"})
        ExpectNeedsDatabase(request);
    ExpectSets("SetThreatLevel?ThreatLevel=2", "2");
}

TEST_F(Threat, InfoNeedsTheRightToViewTheDefinitions)
{
    ExpectNeedsRight("GetThreatInfo?Level=1", 11, 0);
    ExpectNeedsRight("GetThreatInfoEx?Limit=0", 11, 0);
}

TEST_F(Threat, LevelNeedsTheRightToChangeIt)
{
    ExpectNeedsRight("SetThreatLevel?ThreatLevel=2", 10, 3);
}

TEST_F(Threat, LevelIsNotChangedByOneWhoMayOnlyViewIt)
{
    client_.emplace(LoggedIn(panel::kViewer));
    EXPECT_EQ(Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=1");
    ExpectRefused("SetThreatLevel?ThreatLevel=5&Unknown=1", 9, "Authority fail");
    EXPECT_EQ(agent_.CountInLog("Invalid Token"), 0U);
}

TEST_F(Threat, LevelIsNotShownToOneWithoutTheRight)
{
    client_.emplace(LoggedIn(panel::kGuard));
    ExpectRefused("GetThreatLevel?", 9, "Authority fail");
    // Rows of the role that give other rights than these, or none.
    client_.emplace(LoggedIn(panel::kOdd));
    ExpectRefused("GetThreatLevel?", 9, "Authority fail");
    ExpectRefused("SetThreatLevel?ThreatLevel=5", 9, "Authority fail");
    ExpectRefused("GetThreatInfo?Level=1", 9, "Authority fail");
    ExpectRefused("GetThreatInfoEx?", 9, "Authority fail");
}

TEST_F(Threat, LevelIsAuditedUnderTheNameOfWhoeverSetIt)
{
    client_.emplace(LoggedIn(panel::kOperator));
    const std::size_t calls = panel_.Calls().size();
    EXPECT_EQ(Ask("SetThreatLevel?ThreatLevel=2"), kSetAnswer);
    EXPECT_EQ(panel_.Calls(calls),
              std::vector<panel::Call>({kAnnouncement, AuditCall(10803, "operator")}));
}

TEST_F(Threat, CommandsReadTheirKeysInAnyCase)
{
    ExpectReadsKeys("GetThreatInfo?Level=2");
    ExpectReadsKeys("GetThreatInfoEx?Offset=3&Limit=4");
    ExpectReadsKeys("SetThreatLevel?ThreatLevel=2");
}

} // namespace
} // namespace nimbra::test
