// nimbractl and CSV files: users and cards are exported, edited and imported again.

#include "support/FakePanel.h"
#include "support/Files.h"
#include "support/NimbractlTest.h"
#include "support/Terminal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <string>
#include <utility>
#include <vector>

namespace nimbra::test {

namespace {

using nlohmann::json;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

constexpr char kFile[] = "/tmp/import.csv";

/// Writes a list as CSV to the file.
void Export(const std::string &group)
{
    const ProgramResult result = RunCtl({group, "list", "-o", "csv"});
    EXPECT_EQ(result.Status, 0);
    WriteFile(kFile, result.Output);
}

/// Replaces a text of the file, which must be there.
void Edit(const std::string &before, const std::string &after)
{
    std::string content = ReadFile(kFile);
    const std::size_t at = content.find(before);
    ASSERT_NE(at, std::string::npos) << before << "\n" << content;
    WriteFile(kFile, content.replace(at, before.size(), after));
}

ProgramResult Import(const std::string &group, std::vector<std::string> options = {})
{
    options.insert(options.begin(), {group, "import", kFile});
    return RunCtl(options);
}

ProgramResult ImportText(const std::string &group, const std::string &content,
                         const std::vector<std::string> &options = {})
{
    WriteFile(kFile, content);
    return Import(group, options);
}

class NimbractlImport : public NimbractlTest
{
protected:
    using NimbractlTest::NimbractlTest;

    [[nodiscard]] std::vector<std::string> Content() const
    {
        return TestPanel::Dump(panel_.Paths().MainDatabase);
    }
    [[nodiscard]] std::size_t Logins() const
    {
        const std::vector<panel::Call> calls = panel_.Calls();
        return static_cast<std::size_t>(
            std::count_if(calls.begin(), calls.end(), [](const panel::Call &call) {
                return call.size() > 4 && call[4] == "15107";
            }));
    }
    /// Checks that the file is refused with exactly these complaints, and that nothing is sent.
    void ExpectFaults(const std::string &group, const std::string &content,
                      const std::vector<std::string> &complaints)
    {
        SCOPED_TRACE(content);
        const std::vector<std::string> before = Content();
        const ProgramResult result = ImportText(group, content);
        EXPECT_EQ(result.Status, 2);
        std::string expected;
        for (const std::string &complaint : complaints)
            expected += "nimbractl: " + std::string(kFile) + ", line " + complaint + "\n";
        EXPECT_EQ(result.Output, expected + "nimbractl: Nothing is sent.\n");
        EXPECT_EQ(Content(), before);
        EXPECT_THAT(Audited(), IsEmpty());
    }
};

TEST_F(NimbractlImport, UsersAreExportedEditedAndImported)
{
    panel_.Run("UPDATE User SET FirstName=' O''Hara, \"Jo\"', MiddleName='x' || char(9) || ' ' "
               "WHERE No=3");
    Export("users");
    const std::vector<std::string> before = Content();
    EXPECT_EQ(Import("users").Output, "Users: 0 added, 0 changed, 12 unchanged.\n");
    EXPECT_EQ(Content(), before);

    const std::string oldName = panel_.Value("SELECT LastName FROM User WHERE No=2");
    Edit("," + oldName + ",", ",D'Arcy,");
    WriteFile(kFile, ReadFile(kFile) + ",\"Ann, Beth\",,Clark,555-1,,a@b.example,1,0,3\n");
    EXPECT_EQ(Import("users").Output, "Users: 1 added, 1 changed, 11 unchanged.\n");
    EXPECT_THAT(Audited(), ElementsAre("10303", "10301"));
    EXPECT_EQ(panel_.Value("SELECT LastName FROM User WHERE No=2"), "D'Arcy");
    EXPECT_EQ(
        panel_.Rows("SELECT No, FirstName, MiddleName, LastName, Phone, CellPhone, Email, Ada, "
                    "Exempt, ThreatLevel FROM User WHERE No>12"),
        (std::vector<Row>{
            {"13", "Ann, Beth", "", "Clark", "555-1", "", "a@b.example", "1", "0", "3"}}));
    EXPECT_EQ(panel_.Value("SELECT FirstName FROM User WHERE No=3"), " O'Hara, \"Jo\"");

    Export("users");
    EXPECT_EQ(Import("users").Output, "Users: 0 added, 0 changed, 13 unchanged.\n");
    EXPECT_EQ(Logins(), 5U) << "one of each export, one of each import";
}

TEST_F(NimbractlImport, ColumnsMayBeLeftOutAndOrdered)
{
    const std::string others = "SELECT FirstName, Phone, Email, Exempt FROM User WHERE No=4";
    const std::vector<Row> before = panel_.Rows(others);
    EXPECT_EQ(ImportText("users", "\xEF\xBB\xBF"
                                  "CellPhone,UserNo,LastName\r\n"
                                  "555-9,4,Fox\r\n\r\n"
                                  "555-8,,Wolf\r\n")
                  .Output,
              "Users: 1 added, 1 changed, 0 unchanged.\n");
    EXPECT_EQ(panel_.Rows(others), before);
    EXPECT_EQ(panel_.Rows("SELECT No, LastName, CellPhone FROM User WHERE No IN (4, 13)"),
              (std::vector<Row>{{"4", "Fox", "555-9"}, {"13", "Wolf", "555-8"}}));
    EXPECT_EQ(ImportText("users", "LastName\nLynx\n").Output,
              "Users: 1 added, 0 changed, 0 unchanged.\n");
    EXPECT_EQ(ImportText("users", "UserNo,CellPhone,Ada\n4,,\n0004,,\n").Status, 2);
    EXPECT_EQ(ImportText("users", "UserNo,CellPhone,Ada\n0004,,\n13,555-8,0\n").Output,
              "Users: 0 added, 1 changed, 1 unchanged.\n");
    EXPECT_EQ(panel_.Value("SELECT CellPhone FROM User WHERE No=4"), "");
    EXPECT_EQ(ImportText("users", "UserNo,LastName\n").Output,
              "Users: 0 added, 0 changed, 0 unchanged.\n");
}

TEST_F(NimbractlImport, DryRunShowsChangesAndSendsNone)
{
    panel_.Run("UPDATE User SET LastName='Fox', Ada=0 WHERE No=4");
    const std::string content = "UserNo,LastName,Ada,Email\n4,Wolf,1,\n5,,,\n,Lynx,0,l@x.example\n";
    panel_.Run("UPDATE User SET Email='' WHERE No=4");
    ExpectFaults("users", content, {"3, LastName: The value cannot be empty."});
    const std::string right = "UserNo,LastName,Ada,Email\n4,Wolf,1,\n,Lynx,0,l@x.example\n";
    const std::vector<std::string> before = Content();
    EXPECT_EQ(ImportText("users", right, {"--dry-run"}).Output,
              "Line  Action  UserNo  Changes\n"
              "2     change  4       LastName \"Fox\" -> \"Wolf\", Ada \"0\" -> \"1\"\n"
              "3     add             LastName \"Lynx\", Email \"l@x.example\"\n"
              "nimbractl: Nothing is sent. Without --dry-run: Users: 1 added, 1 changed, 0 "
              "unchanged.\n");
    EXPECT_THAT(ImportText("users", right, {"--dry-run", "-o", "jsonl"}).Output,
                StartsWith("{\"Line\":2,\"Action\":\"change\",\"UserNo\":4,\"Changes\":"));
    EXPECT_EQ(Content(), before);
    EXPECT_THAT(Audited(), IsEmpty());
}

TEST_F(NimbractlImport, AllRowsAreCheckedBeforeTheFirstIsSent)
{
    ExpectFaults("users", "UserNo,LastName,Colour,UserNo\n1,Fox,red,1\n",
                 {"1, Colour: There is no such column; the columns are UserNo, FirstName, "
                  "MiddleName, LastName, PhoneNumber, CellPhone, Email, Ada, Exempt, ThreatLevel.",
                  "1, UserNo: The column is there twice."});
    ExpectFaults("users",
                 "UserNo,LastName,Ada,Email\n"
                 "1,Fox,0,\n"
                 "x,Fox,0,\n"
                 "0,Fox,0,\n"
                 "3,Fox,one,\n"
                 "4,Fox,99999999999,\n"
                 "6,Fox\n"
                 "1,Wolf,0,\n",
                 {"3, UserNo: \"x\" is no whole number of 32 bits.",
                  "4, UserNo: 0 is not within 1 and 2147483647.",
                  "5, Ada: \"one\" is no whole number of 32 bits.",
                  "6, Ada: \"99999999999\" is no whole number of 32 bits.",
                  "7: The row has 2 values; the header has 4.",
                  "8, UserNo: Line 2 has this number, too."});
    ExpectFaults(
        "users",
        "UserNo,LastName,Ada,Email\n"
        "2,,0,\n"
        "3,Fish & Chips,0,\n"
        "5,\"two\nlines\",0,\n"
        ",Fox,0," +
            std::string(33, 'x') + "\n",
        {"2, LastName: The value cannot be empty.",
         "3, LastName: The value of LastName holds \"&\", which the protocol cannot carry.",
         "4, LastName: The value of LastName holds a line feed, which the protocol cannot carry.",
         "6, Email: The value of Email has 33 bytes (a single quote counts twice); the panel "
         "keeps 32."});
    ExpectFaults("users", "UserNo,FirstName\n,Ann\n77,Bob\n",
                 {"2, LastName: A new record needs this column."});
    ExpectFaults("users", "UserNo,FirstName\n5,Ann\n77,Bob\n",
                 {"3, UserNo: There is no such user."});
    ExpectFaults("users", "UserNo,LastName\n1\n,M\xFCller\n2,M\xC3\xBCller\n",
                 {"2: The row has 1 value; the header has 2."});
    ExpectFaults("users", "UserNo,LastName\n1,M\xFCller\n,\xC3\n2,M\xC3\xBCller\n",
                 {"2, LastName: The value is not UTF-8.", "3, LastName: The value is not UTF-8."});
    EXPECT_THAT(ImportText("users", std::string(1000, 'x') + "\n").Output,
                StartsWith("nimbractl: /tmp/import.csv, line 1, " + std::string(39, 'x') +
                           "…: There is no such column; "));
    EXPECT_THAT(ImportText("users", "LastName,\nFox,\n").Output,
                StartsWith("nimbractl: /tmp/import.csv, line 1: There is no such column; "));
    EXPECT_EQ(ImportText("users", "").Output,
              "nimbractl: /tmp/import.csv is empty; its first line must name the columns.\n");
    EXPECT_EQ(ImportText("users", "UserNo\n\"1\n").Output,
              "nimbractl: /tmp/import.csv, line 2: The value lacks its closing quotation mark.\n");
    ExpectCtlFails({"users", "import", "/tmp/none.csv"}, 2, "Cannot read /tmp/none.csv.");
    std::string many = "LastName\n";
    for (int i = 0; i < 25; ++i)
        many += "a&b\n";
    const std::string complaints = ImportText("users", many).Output;
    EXPECT_EQ(std::count(complaints.begin(), complaints.end(), '\n'), 21);
    EXPECT_THAT(complaints, EndsWith("nimbractl: There are 5 more faults. Nothing is sent.\n"));
}

TEST_F(NimbractlImport, TextsThatThePanelReportsInPartAreNotCut)
{
    const std::string email = panel_.Value("SELECT Email FROM User WHERE No=9");
    ASSERT_GT(email.size(), 32U);
    const std::string content = "UserNo,Email,CellPhone\n9," + email.substr(0, 32) + ",555-7\n";
    ExpectFaults("users", content,
                 {"2: The panel may hold more of Email than the 32 bytes it reports, and the rest "
                  "would be lost: give a new value, or --accept-cut."});
    EXPECT_EQ(ImportText("users", content, {"--accept-cut"}).Output,
              "Users: 0 added, 1 changed, 0 unchanged.\n");
    EXPECT_EQ(panel_.Value("SELECT Email FROM User WHERE No=9"), email.substr(0, 32));
}

TEST_F(NimbractlImport, UnchangedValuesThatCannotBeSentAreAccepted)
{
    panel_.Run("UPDATE User SET FirstName='Salt & Pepper', Ada=0 WHERE No=3");
    panel_.Run("UPDATE User SET FirstName='" + std::string(31, 'x') + "''' WHERE No=4");
    panel_.Run("UPDATE User SET LastName='', Ada=0 WHERE No=5");
    panel_.Run("UPDATE Card SET UserNo=0, CardNo='', ActDate=-2147483648 WHERE No=2");
    Export("users");
    EXPECT_EQ(Import("users").Output, "Users: 0 added, 0 changed, 12 unchanged.\n");
    Export("cards");
    EXPECT_THAT(Import("cards").Output, StartsWith("Cards: 0 added, 0 changed, "));
    ExpectFaults("users", "UserNo,FirstName,Ada\n3,Salt & Pepper,1\n",
                 {"2: The value of FirstName holds \"&\", which the protocol cannot carry."});
    ExpectFaults("users", "UserNo,Ada\n5,1\n", {"2, LastName: The value cannot be empty."});
    ExpectFaults("cards", "CardNo,CardStatus\n2,77\n",
                 {"2, UserNo: The value cannot be empty or 0.",
                  "2, CardNumber: The value cannot be empty."});
}

TEST_F(NimbractlImport, NewRecordsAreAddedToPanelWithoutRecords)
{
    panel_.Run("DELETE FROM Card");
    EXPECT_EQ(ImportText("cards", "UserNo,FormatNo,CardNumber,NeverExpire\n3,1,4711,1\n").Output,
              "Cards: 1 added, 0 changed, 0 unchanged.\n");
    panel_.Run("DELETE FROM User");
    EXPECT_EQ(ImportText("users", "UserNo,LastName\n,Fox\n").Output,
              "Users: 1 added, 0 changed, 0 unchanged.\n");
}

/// A panel that refuses users of the name "Bad".
class NimbractlImportRefused : public NimbractlImport
{
protected:
    NimbractlImportRefused()
    {
        panel_.Run("CREATE TRIGGER Refuse BEFORE INSERT ON User WHEN NEW.LastName='Bad' BEGIN "
                   "SELECT RAISE(ABORT, 'bad'); END");
        WriteFile(kFile, "LastName\nFox\nBad\nWolf\nBad\nLynx\n");
    }
    [[nodiscard]] std::vector<Row> NewNames() const
    {
        return panel_.Rows("SELECT LastName FROM User WHERE No>12 ORDER BY No");
    }
};

TEST_F(NimbractlImportRefused, RowEndsTheImport)
{
    const ProgramResult result = Import("users");
    EXPECT_EQ(result.Status, 1);
    EXPECT_THAT(result.Output,
                AllOf(HasSubstr("Users: 1 added, 0 changed, 0 unchanged, 1 refused, 3 "
                                "not sent.\n"),
                      HasSubstr("nimbractl: /tmp/import.csv, line 3: "),
                      HasSubstr("(AddUserInfo: Result=1)")));
    EXPECT_EQ(NewNames(), (std::vector<Row>{{"Fox"}}));
}

TEST_F(NimbractlImportRefused, RowIsSkippedWithContinue)
{
    const ProgramResult result = Import("users", {"--continue"});
    EXPECT_EQ(result.Status, 1);
    EXPECT_THAT(result.Output,
                AllOf(HasSubstr("nimbractl: /tmp/import.csv, line 3: "),
                      HasSubstr("nimbractl: /tmp/import.csv, line 5: "),
                      HasSubstr("Users: 3 added, 0 changed, 0 unchanged, 2 refused.\n"),
                      EndsWith("nimbractl: The panel refused 2 of the rows.\n")));
    EXPECT_EQ(NewNames(), (std::vector<Row>{{"Fox"}, {"Wolf"}, {"Lynx"}}));
    EXPECT_THAT(Import("users", {"--continue", "-o", "jsonl"}).Output,
                HasSubstr("{\"Added\":3,\"Changed\":0,\"Unchanged\":0,\"Refused\":2,\"Unknown\":0,"
                          "\"NotSent\":0}\n"));
}

TEST_F(NimbractlImport, LoginThatMayNotReadUsersMayAddThem)
{
    panel_.Run("DELETE FROM UserRoleTable WHERE FormIndex=3 AND Authority=0");
    const auto import = [](const std::string &content) {
        WriteFile(kFile, content);
        return RunProgram(
            CtlCommand({"users", "import", kFile}, {"NIMBRA_HOST=127.0.0.1", "NIMBRA_USER=operator",
                                                    "NIMBRA_PASSWORD=operate!1"}));
    };
    EXPECT_EQ(import("LastName\nFox\n").Output, "Users: 1 added, 0 changed, 0 unchanged.\n");
    const ProgramResult refused = import("UserNo,LastName\n1,Fox\n,Wolf\n");
    EXPECT_EQ(refused.Status, 1);
    EXPECT_THAT(refused.Output, HasSubstr("(GetUserInfoEx: Result=9)"));
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM User"), "13");
}

TEST_F(NimbractlImport, CardsAreExportedEditedAndImported)
{
    Export("cards");
    const std::vector<std::string> before = Content();
    const std::string unchanged = Import("cards").Output;
    EXPECT_THAT(unchanged, StartsWith("Cards: 0 added, 0 changed, "));
    EXPECT_EQ(Content(), before);

    const std::string levels = "SELECT AccessLevelNo FROM CardAccessLevel WHERE CardNo=2";
    const std::vector<Row> levelsBefore = panel_.Rows(levels);
    const std::string number = panel_.Value("SELECT CardNo FROM Card WHERE No=2");
    Edit("," + number + ",", ",990002,");
    WriteFile(kFile,
              ReadFile(kFile) + ",3,1,26-bit Wiegand,990017,0,1,0,0,2026-01-01,2027-01-01\n");
    EXPECT_THAT(Import("cards").Output, StartsWith("Cards: 1 added, 1 changed, "));
    EXPECT_THAT(Audited(), ElementsAre("10403", "10401"));
    EXPECT_EQ(panel_.Value("SELECT CardNo FROM Card WHERE No=2"), "990002");
    EXPECT_EQ(panel_.Rows(levels), levelsBefore);
    EXPECT_EQ(panel_.Rows("SELECT UserNo, CardFormatNo, CardNo, CardStatus, date(ActDate, "
                          "'unixepoch'), date(ExpDate, 'unixepoch') FROM Card WHERE No=17"),
              (std::vector<Row>{{"3", "1", "990017", "1", "2026-01-01", "2027-01-01"}}));
    Export("cards");
    EXPECT_THAT(Import("cards").Output, StartsWith("Cards: 0 added, 0 changed, "));
}

TEST_F(NimbractlImport, CardsAreComparedWithTheOtherRecordsOfThePanel)
{
    const std::string number = panel_.Value("SELECT CardNo FROM Card WHERE No=2");
    const std::string format = panel_.Value("SELECT CardFormatNo FROM Card WHERE No=2");
    ExpectFaults("cards",
                 "CardNo,UserNo,FormatNo,FormatName,CardNumber,ExpDate\n"
                 ",999,1,,4711,2027-01-01\n"
                 ",3,99,,4712,tomorrow\n",
                 {"3, ExpDate: \"tomorrow\" is no date such as 2026-01-31."});
    ExpectFaults("cards",
                 "CardNo,UserNo,FormatNo,FormatName,CardNumber\n"
                 ",999,1,,4711\n"
                 ",3,99,,4712\n"
                 ",3,1,No such format,4713\n"
                 ",3,1,26-bit Wiegand,4713\n"
                 ",3," +
                     format + ",," + number + "\n",
                 {"2, UserNo: There is no user 999.", "3, FormatNo: There is no card format 99.",
                  "4, FormatName: The name cannot be changed; FormatNo chooses the format.",
                  "5, CardNumber: Line 4 has this number in the same format.",
                  "6, CardNumber: Card 2 has this number in the same format."});
    ExpectFaults("cards", "CardNo,UserNo\n5,3\n",
                 {"2, CardNo: There is no such card, or its format is gone."});
    ExpectFaults("cards", "UserNo,FormatNo,CardNumber\n0,1,4711\n3,,4711\n3,1,\n",
                 {"2, UserNo: The value cannot be empty or 0.",
                  "3, FormatNo: The value cannot be empty or 0.",
                  "4, CardNumber: The value cannot be empty."});
    // A number that an earlier row gives up is free.
    EXPECT_EQ(
        ImportText("cards", "CardNo,UserNo,FormatNo,CardNumber,NeverExpire\n2,3,1,4711,1\n,3," +
                                format + "," + number + ",1\n")
            .Output,
        "Cards: 1 added, 1 changed, 0 unchanged.\n");
}

TEST_F(NimbractlImport, NewCardsWithoutDatesAreReported)
{
    EXPECT_EQ(ImportText("cards", "UserNo,FormatNo,CardNumber,ActDate,ExpDate,NeverExpire\n"
                                  "3,1,4711,2026-01-01,2027-01-01,0\n"
                                  "3,1,4712,,,1\n"
                                  "3,1,4713,,,0\n"
                                  "3,1,4714,2026-01-01,,\n")
                  .Output,
              "nimbractl: New cards without both dates, and not as ones that never expire: 2, the "
              "first in line 4. Their dates are stored as 1970-01-01.\n"
              "Cards: 4 added, 0 changed, 0 unchanged.\n");
}

TEST_F(NimbractlImport, ProgressIsShownOnATerminalOnly)
{
    std::string content = "LastName\n";
    for (int i = 0; i < 40; ++i)
        content += "Fox\n";
    WriteFile(kFile, content);
    Terminal terminal(CtlCommand({"users", "import", kFile}));
    EXPECT_EQ(terminal.WaitForExit(), 0);
    EXPECT_TRUE(terminal.WaitFor("\rImporting [")) << terminal.Output();
    EXPECT_TRUE(terminal.WaitFor("##] 100%\r\nUsers: 40 added, 0 changed, 0 unchanged.\r\n"))
        << terminal.Output();
    EXPECT_THAT(Import("users").Output, Not(HasSubstr("Importing")));
}

TEST(NimbractlImportFailures, EmptyListThatARowNeedsIsRefused)
{
    FakePanel panel([](const std::string &line) {
        const std::string word = line.substr(0, line.find('?'));
        return word.starts_with("Get") ? word + "Response?Result=1\n" : "";
    });
    for (const auto &[group, content] : {std::pair{"users", "UserNo,LastName\n3,Fox\n"},
                                         {"cards", "UserNo,FormatNo,CardNumber\n3,1,4711\n"}}) {
        const ProgramResult result =
            ImportText(group, content, {"--port", std::to_string(panel.Port())});
        EXPECT_EQ(result.Status, 1);
        EXPECT_EQ(result.Output, "nimbractl: The panel has no such users, or cannot read its "
                                 "database. (GetUserInfoEx: Result=1)\n");
    }
}

TEST(NimbractlImportFailures, PartOfAListIsRefused)
{
    FakePanel panel([](const std::string &line) -> std::string {
        if (line == "GetCardInfoEx?Limit=200") {
            std::string page = "GetCardInfoExResponse?Result=0&Total=201&Offset=0&Count=200\n";
            for (int i = 1; i <= 200; ++i)
                page += "CardNo=" + std::to_string(i) + "\n";
            return page;
        }
        return line.starts_with("GetCardInfoEx?") ? "GetCardInfoExResponse?Result=1\n" : "";
    });
    const ProgramResult result =
        ImportText("cards", "UserNo,FormatNo,CardNumber\n3,1,4711\n",
                   {"--clock-offset", "Z", "--port", std::to_string(panel.Port())});
    EXPECT_EQ(result.Status, 1);
    EXPECT_EQ(result.Output, "nimbractl: The panel has no such cards, or cannot read its database. "
                             "(GetCardInfoEx: Result=1)\n");
}

TEST(NimbractlImportFailures, LostConnectionLeavesOneRowUnknown)
{
    FakePanel panel([](const std::string &line) -> std::optional<std::string> {
        if (line == "AddUserInfo?LastName=Wolf")
            return std::nullopt;
        return line.starts_with("AddUserInfo?") ? "AddUserInfoResponse?Result=0\n" : "";
    });
    const ProgramResult result = ImportText("users", "LastName\nFox\nWolf\nLynx\n",
                                            {"--port", std::to_string(panel.Port())});
    EXPECT_EQ(result.Status, 3);
    EXPECT_THAT(
        result.Output,
        AllOf(HasSubstr("Users: 1 added, 0 changed, 0 unchanged, 1 sent without a response, "
                        "1 not sent.\n"),
              HasSubstr("nimbractl: /tmp/import.csv, line 3: ")));
    EXPECT_EQ(panel.Count("AddUserInfo?"), 2U);
}

TEST(NimbractlImportFailures, InterruptionReportsWhatIsDone)
{
    FakePanel panel([](const std::string &line) {
        return line == "AddUserInfo?LastName=Fox" ? "AddUserInfoResponse?Result=0\n" : "";
    });
    WriteFile(kFile, "LastName\nFox\nWolf\nLynx\n");
    Terminal terminal(
        CtlCommand({"users", "import", kFile, "--port", std::to_string(panel.Port())}));
    EXPECT_TRUE(WaitUntil([&panel] { return panel.Count("AddUserInfo?LastName=Wolf") > 0; }));
    terminal.Type("\x03");
    EXPECT_EQ(terminal.WaitForExit(), 130);
    EXPECT_TRUE(
        terminal.WaitFor("Users: 1 added, 0 changed, 0 unchanged, 1 sent without a response, "
                         "1 not sent."))
        << terminal.Output();
}

/// A panel whose clock is two hours ahead of UTC.
class NimbractlImportClock : public NimbractlImport
{
protected:
    NimbractlImportClock() : NimbractlImport({}, "XYZ-2") {}
};

TEST_F(NimbractlImportClock, CardsKeepTheirDays)
{
    panel_.Run(
        "UPDATE Card SET ActDate=strftime('%s', '2026-02-28 22:00:00'), ExpDate=0 WHERE No=2");
    Export("cards");
    const std::vector<std::string> before = Content();
    EXPECT_THAT(Import("cards").Output, StartsWith("Cards: 0 added, 0 changed, "));
    EXPECT_EQ(Content(), before);
    EXPECT_EQ(ImportText("cards", "CardNo,CardStatus\n2,7\n").Status, 0);
    EXPECT_EQ(panel_.Rows("SELECT ActDate, ExpDate, CardStatus FROM Card WHERE No=2"),
              panel_.Rows("SELECT strftime('%s', '2026-02-28 22:00:00'), 0, 7"));
}

/// A panel with as many users as a large one has.
class NimbractlImportMany : public NimbractlImport
{
protected:
    NimbractlImportMany() : NimbractlImport({.Users = 10000}) {}
};

TEST_F(NimbractlImportMany, TenThousandUsersAreComparedAndOnlyTheDifferencesSent)
{
    const std::string all = "SELECT No, IFNULL(FirstName, ''), IFNULL(MiddleName, ''), LastName, "
                            "IFNULL(Phone, ''), IFNULL(CellPhone, ''), IFNULL(Email, ''), "
                            "IFNULL(Ada, 0), IFNULL(Exempt, 0), IFNULL(ThreatLevel, 0) FROM User "
                            "ORDER BY No";
    std::vector<Row> expected = panel_.Rows(all);
    ASSERT_EQ(expected.size(), 10000U);
    Export("users");
    std::string content = "UserNo,LastName,PhoneNumber\n";
    std::size_t changed = 0;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        // The rest of an e-mail address that the panel reports in part would be lost.
        if (i % 500 == 7 && expected[i][6].size() < 32) {
            expected[i][4] = "555-" + std::to_string(i);
            ++changed;
        }
        content += expected[i][0] + "," + expected[i][3] + "," + expected[i][4] + "\n";
    }
    ASSERT_GT(changed, 5U);
    for (int i = 1; i <= 20; ++i) {
        const std::string name = "O'New " + std::to_string(i);
        expected.push_back({std::to_string(10000 + i), "", "", name, "555", "", "", "0", "0", "0"});
        content += "," + name + ",555\n";
    }
    EXPECT_EQ(Import("users").Output, "Users: 0 added, 0 changed, 10000 unchanged.\n");
    EXPECT_EQ(ImportText("users", content).Output,
              "Users: 20 added, " + std::to_string(changed) + " changed, " +
                  std::to_string(10000 - changed) + " unchanged.\n");
    EXPECT_EQ(panel_.Rows(all), expected);
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM DBQueryInfo"), std::to_string(20 + changed));
    EXPECT_EQ(Logins(), 3U);
}

} // namespace

} // namespace nimbra::test
