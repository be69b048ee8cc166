// The journal of the statements of a change, and the audit entry that the command tool of the panel
// writes.

#include "simulator/panel/Sqlite.h"
#include "support/AgentTest.h"
#include "support/Files.h"
#include "support/Program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace nimbra::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace fs = std::filesystem;

constexpr char kSource[] = "DataManager.cpp";
constexpr char kDone[] = "DelCardInfoResponse?Result=0";

class Journal : public AgentTest
{
protected:
    [[nodiscard]] std::vector<Row> JournalRows() const
    {
        return panel_.Rows("SELECT Idseq, QueryData, DbKind FROM DBQueryInfo ORDER BY rowid");
    }

    /// The sequence numbers of the journal in the order of insertion.
    [[nodiscard]] std::vector<std::string> Numbers() const
    {
        std::vector<std::string> numbers;
        for (const Row &row : JournalRows())
            numbers.push_back(row[0]);
        return numbers;
    }

    /// Deletes a card by two statements.
    std::string DeleteCard(int no)
    {
        return client_.Ask("DelCardInfo?CardNo=" + std::to_string(no));
    }

    ManagementClient &client_ = LogIn();
};

std::vector<std::string> Deletions(int cardNo)
{
    const std::string no = std::to_string(cardNo);
    return {"DELETE FROM CardAccessLevel WHERE CardNo=" + no, "DELETE FROM Card WHERE No=" + no};
}

// Rows of the journal

TEST_F(Journal, NumbersStartAtOneAndIncrease)
{
    EXPECT_EQ(DeleteCard(2), kDone);
    EXPECT_EQ(DeleteCard(3), kDone);
    const std::vector<Row> rows = {
        {"1", Deletions(2)[0], "1"},
        {"2", Deletions(2)[1], "1"},
        {"3", Deletions(3)[0], "1"},
        {"4", Deletions(3)[1], "1"},
    };
    EXPECT_EQ(JournalRows(), rows);
    EXPECT_EQ(panel_.Value("SELECT group_concat(DISTINCT typeof(Idseq) || ' ' || typeof(QueryData)"
                           " || ' ' || typeof(DbKind)) FROM DBQueryInfo"),
              "integer text integer");
}

TEST_F(Journal, NumbersContinueFromLargestNumber)
{
    panel_.Run("INSERT INTO DBQueryInfo VALUES (2000000000, 'x', 1), (7, 'y', 2), (NULL, 'z', 1)");
    EXPECT_EQ(DeleteCard(2), kDone);
    EXPECT_THAT(Numbers(), ElementsAre("2000000000", "7", "", "2000000001", "2000000002"));
}

TEST_F(Journal, NumbersStartAtOneWhenAllAreNull)
{
    panel_.Run("INSERT INTO DBQueryInfo VALUES (NULL, 'x', 1)");
    EXPECT_EQ(DeleteCard(2), kDone);
    EXPECT_THAT(Numbers(), ElementsAre("", "1", "2"));
}

TEST_F(Journal, NumbersContinueFromNegativeNumber)
{
    panel_.Run("INSERT INTO DBQueryInfo VALUES (-5, 'x', 1)");
    EXPECT_EQ(DeleteCard(2), kDone);
    EXPECT_THAT(Numbers(), ElementsAre("-5", "-4", "-3"));
}

TEST_F(Journal, NumbersStartAgainAfterPanelTakesRows)
{
    EXPECT_EQ(DeleteCard(2), kDone);
    panel_.Run("DELETE FROM DBQueryInfo");
    EXPECT_EQ(DeleteCard(3), kDone);
    EXPECT_THAT(Numbers(), ElementsAre("1", "2"));
}

TEST_F(Journal, RowHoldsStatementWithItsQuotes)
{
    EXPECT_EQ(client_.Ask("AddUserInfo?LastName=O''Neill&FirstName=''&Email=a\"b%d"),
              "AddUserInfoResponse?Result=0");
    EXPECT_THAT(
        panel_.Journal(),
        ElementsAre("INSERT INTO User (Site, No, FirstName, MiddleName, LastName, Phone, CellPhone,"
                    " Email, Ada, Exempt, ThreatLevel) VALUES (1, 13, '''', '', 'O''Neill', '', '',"
                    " 'a\"b%d', 0, 0, 0)"));
    EXPECT_EQ(panel_.Value("SELECT FirstName || LastName FROM User WHERE No=13"), "'O'Neill");
}

TEST_F(Journal, RowHoldsLongStatementCompletely)
{
    const std::string quotes(32, '\'');
    const std::string text(32, 't');
    EXPECT_EQ(client_.Ask("SetUserInfo?UserNo=1&FirstName=" + quotes + "&MiddleName=" + quotes +
                          "&LastName=" + quotes + "&PhoneNumber=" + quotes + "&CellPhone=" + text +
                          "&Email=" + quotes),
              "SetUserInfoResponse?Result=0");
    const std::string statement = "UPDATE User SET FirstName='" + quotes + "', MiddleName='" +
                                  quotes + "', LastName='" + quotes + "', Phone='" + quotes +
                                  "', CellPhone='" + text + "', Email='" + quotes +
                                  "', Ada=0, Exempt=0, ThreatLevel=0 WHERE No=1";
    EXPECT_THAT(panel_.Journal(), ElementsAre(statement));
    EXPECT_EQ(panel_.Value("SELECT LastName FROM User WHERE No=1"), std::string(16, '\''));
}

TEST_F(Journal, StatementsRepeatEveryChange)
{
    const std::string main = panel_.Paths().MainDatabase;
    const std::string copy = main + ".copy";
    fs::copy_file(main, copy);
    for (const std::string line :
         {"AddUserInfo?LastName=O''Brien&Email=brien@nimbra.example&Ada=1",
          "AddUserInfo?LastName=M\xC3\xBCller\\&FirstName=\"Zo\xC3\xAB\"",
          "SetUserInfo?UserNo=1&LastName=Changed&ThreatLevel=-3", "DelUserInfo?UserNo=2",
          "AddCardInfo?UserNo=13&FormatNo=1&CardNumber=4711''&ActDate=2026-01-02",
          "SetCardInfo?CardNo=3&UserNo=5&FormatNo=2&CardNumber=12345&KeyNumber=9",
          "DelCardInfo?CardNo=4", "SetCardAccessLevel?CardNo=1&SelectType=2&AccessLevelNo=3 1 x 2",
          "AddUserInfo?LastName=Last"}) {
        const std::string word = line.substr(0, line.find('?'));
        EXPECT_EQ(client_.Ask(line), word + "Response?Result=0") << line;
    }
    for (const std::string &statement : panel_.Journal())
        TestPanel::Run(copy, statement);
    for (const std::string &file : {main, copy})
        TestPanel::Run(file, "DELETE FROM DBQueryInfo");
    EXPECT_EQ(TestPanel::Dump(copy), TestPanel::Dump(main));
}

// A journal that fails

TEST_F(Journal, ChangeSucceedsWithoutJournalTable)
{
    panel_.Run("DROP TABLE DBQueryInfo");
    const std::size_t calls = panel_.Calls().size();
    EXPECT_EQ(DeleteCard(2), kDone);
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM Card WHERE No=2"), "0");
    EXPECT_THAT(panel_.Calls(calls), ElementsAre(AuditCall(10402)));
    EXPECT_EQ(agent_.CountMessages(kSource, "AddDBQueryInfo", "sqlite3_exec fail"), 2U);
    EXPECT_EQ(agent_.CountInLog("fail"), 2U);
}

TEST_F(Journal, ChangeSucceedsWhenJournalRowIsRefused)
{
    panel_.Run("CREATE TRIGGER Full BEFORE INSERT ON DBQueryInfo WHEN NEW.Idseq = 1"
               " BEGIN SELECT RAISE(ABORT, 'full'); END");
    EXPECT_EQ(DeleteCard(2), kDone);
    EXPECT_EQ(agent_.CountMessages(kSource, "AddDBQueryInfo", "sqlite3_exec fail"), 2U);
    panel_.Run("DROP TRIGGER Full");
    EXPECT_EQ(DeleteCard(3), kDone);
    EXPECT_EQ(panel_.Journal(), Deletions(3));
}

TEST_F(Journal, RowsHoldStatementsBeforeFailedOne)
{
    panel_.Run("ALTER TABLE Card RENAME TO Away");
    const std::size_t calls = panel_.Calls().size();
    EXPECT_EQ(DeleteCard(3), "DelCardInfoResponse?Result=1");
    EXPECT_TRUE(agent_.WaitForMessage("ClientWorker.cpp", "DelCardInfo", "DelCardInfo fail"));
    EXPECT_EQ(agent_.CountMessages(kSource, "DelCardInfo", "sqlite3_exec fail"), 1U);
    EXPECT_THAT(panel_.Journal(), ElementsAre(Deletions(3)[0]));
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM CardAccessLevel WHERE CardNo=3"), "0");
    EXPECT_THAT(panel_.Calls(calls), IsEmpty());
}

TEST_F(Journal, RefusedChangesAndReadsAreNotJournalled)
{
    const std::vector<std::pair<std::string, int>> lines = {
        {"GetUserInfo?UserNo=1", 0},
        {"GetCardInfo?CardNo=1", 0},
        {"AddUserInfo?FirstName=x", 2},
        {"SetUserInfo?LastName=x", 2},
        {"AddCardInfo?UserNo=1", 2},
        {"AddUserInfo?LastName=O'Neill", 1},
        {"SetUserInfo?UserNo=1&LastName=x' WHERE 1=1 --", 1},
    };
    for (const auto &[line, result] : lines) {
        const std::string lead =
            line.substr(0, line.find('?')) + "Response?Result=" + std::to_string(result);
        EXPECT_EQ(client_.Ask(line).substr(0, lead.size()), lead) << line;
    }
    const std::size_t calls = panel_.Calls().size();
    EXPECT_EQ(calls, 1U) << "the login";
    ManagementClient &viewer = LogIn(panel::kViewer);
    EXPECT_EQ(viewer.Ask("DelCardInfo?CardNo=1"), "DelCardInfoResponse?Result=9");
    EXPECT_THAT(panel_.Calls(), SizeIs(calls + 1));
    EXPECT_THAT(JournalRows(), IsEmpty());
}

TEST_F(Journal, PanelCommandsAreNotJournalled)
{
    for (const std::string word : {"SetThreatLevel", "SetAuxOutput", "SetDoorLock"})
        EXPECT_EQ(client_.Ask(word + "?ThreatLevel=2&Port=1&Control=1"),
                  word + "Response?Result=0");
    EXPECT_EQ(panel_.Value("SELECT ThreatStatus FROM Threat"), "2");
    EXPECT_THAT(JournalRows(), IsEmpty());
}

// The audit entry

TEST_F(Journal, ChangeIsAuditedOnceUnderSessionUser)
{
    ManagementClient &operatorClient = LogIn(panel::kOperator);
    const std::size_t calls = panel_.Calls().size();
    EXPECT_EQ(operatorClient.Ask("DelCardInfo?CardNo=2"), kDone);
    EXPECT_EQ(DeleteCard(3), kDone);
    EXPECT_THAT(panel_.Calls(calls),
                ElementsAre(AuditCall(10402, "operator"), AuditCall(10402, "admin")));
}

TEST_F(Journal, JournalIsCompleteBeforeAudit)
{
    ReplaceProgram(panel_.Paths().CommandTool, "cp /tmp/NimbraDB/Nimbra.db /nimbra/at-audit.db\n");
    EXPECT_EQ(DeleteCard(3), kDone);
    const std::vector<Row> journal =
        TestPanel::Rows("/nimbra/at-audit.db", "SELECT QueryData FROM DBQueryInfo ORDER BY Idseq");
    EXPECT_THAT(journal, ElementsAre(Row{Deletions(3)[0]}, Row{Deletions(3)[1]}));
    EXPECT_TRUE(TestPanel::Rows("/nimbra/at-audit.db", "SELECT No FROM Card WHERE No=3").empty());
}

TEST_F(Journal, AnswerFollowsAudit)
{
    ReplaceProgram(panel_.Paths().CommandTool, "sleep 2\necho \"$@\" >> /nimbra/audit\n");
    const Stopwatch watch;
    EXPECT_EQ(DeleteCard(3), kDone);
    EXPECT_EQ(ReadFile("/nimbra/audit"), "log 1 127.0.0.1 0 10402 0 0 admin 0 0\n");
    EXPECT_GE(watch.Seconds(), 2.0);
    EXPECT_EQ(client_.Login("operator", panel::kOperator.Password), "LoginResponse?Result=0");
    EXPECT_EQ(ReadFile("/nimbra/audit"), "log 1 127.0.0.1 0 10402 0 0 admin 0 0\n"
                                         "log 1 127.0.0.1 0 15107 0 0 operator 0 0\n");
}

TEST_F(Journal, FailedAuditDoesNotChangeAnswer)
{
    int card = 1;
    for (const char *script :
         {"exit 1\n", "kill -9 $$\n", "kill -SEGV $$\n", "echo; exec false\n"}) {
        ReplaceProgram(panel_.Paths().CommandTool, script);
        EXPECT_EQ(DeleteCard(++card), kDone) << script;
        EXPECT_EQ(Connect().Login("admin", "admin1234"), "LoginResponse?Result=0") << script;
    }
    fs::permissions(panel_.Paths().CommandTool, fs::perms(0644));
    EXPECT_EQ(DeleteCard(++card), kDone);
    fs::remove(panel_.Paths().CommandTool);
    EXPECT_EQ(DeleteCard(++card), kDone);
    EXPECT_EQ(Connect().Login("admin", "admin1234"), "LoginResponse?Result=0");
    EXPECT_THAT(panel_.Journal(), SizeIs(static_cast<std::size_t>(card - 1) * 2));
    EXPECT_EQ(agent_.CountInLog("DEBUG: "), 0U) << "the agent does not log it";
}

} // namespace
} // namespace nimbra::test
