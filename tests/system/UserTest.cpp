#include "support/CommandTest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <cstddef>
#include <string>
#include <vector>

namespace nimbra::test {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

/// Users 3, 4, 8 with and without values, and cards with access levels for two of them.
constexpr char kUsers[] = R"(
DELETE FROM User;
DELETE FROM Card;
DELETE FROM CardAccessLevel;
INSERT INTO User (Site, No, FirstName, MiddleName, LastName, Phone, CellPhone, Email, Ada, Exempt,
        ThreatLevel, ImageFile) VALUES
    (1, 3, 'Ada', 'King', 'Lovelace', '555-1', '555-2', 'ada@nimbra.example', 1, 2, 3, 'ada.jpg'),
    (2, 4, NULL, NULL, 'Nobody', NULL, NULL, NULL, NULL, NULL, NULL, NULL),
    (1, 8, 'Alan', '', 'Turing', '', '', '', 0, 0, -2, 'alan.jpg');
INSERT INTO Card (No, UserNo, CardFormatNo, CardNo) VALUES
    (20, 3, 1, '200'), (21, 3, 1, '210'), (22, 8, 1, '220'), (3, 4, 1, '30');
INSERT INTO CardAccessLevel (No, CardNo, AccessLevelNo) VALUES
    (1, 20, 1), (2, 20, 2), (3, 21, 1), (4, 22, 1), (5, 3, 1);
)";

/// The texts of a user by their keys, in the order of the statements.
constexpr const char *kTextKeys[] = {"FirstName",   "MiddleName", "LastName",
                                     "PhoneNumber", "CellPhone",  "Email"};

/// A request with all texts the same.
std::string WithTexts(const std::string &start, const std::string &text)
{
    std::string request = start;
    for (const char *key : kTextKeys)
        request += std::string("&") + key + "=" + text;
    return request;
}

class User : public CommandTest
{
protected:
    User() { panel_.Run(kUsers); }

    /// The answer to a list request for the users of a condition, one page of them.
    std::vector<std::string> Listed(const std::string &condition, int offset = 0, int limit = 25)
    {
        const std::string from = " FROM User WHERE " + condition;
        const std::vector<std::string> rows =
            Lines("SELECT printf('UserNo=%d&FirstName=%s&MiddleName=%s&LastName=%s&PhoneNumber=%s"
                  "&CellPhone=%s&Email=%s&Ada=%d&Exempt=%d&ThreatLevel=%d', No, FirstName, "
                  "MiddleName, LastName, Phone, CellPhone, Email, Ada, Exempt, ThreatLevel)" +
                  from + " ORDER BY No LIMIT " + std::to_string(limit) + " OFFSET " +
                  std::to_string(offset));
        return ListAnswer("GetUserInfoEx", std::stoul(panel_.Value("SELECT COUNT(*)" + from)),
                          offset, rows);
    }

    /// Replaces all users by `count` users.
    void MakeUsers(int count)
    {
        panel_.Run("DELETE FROM User; WITH RECURSIVE N(No) AS (SELECT 1 UNION ALL SELECT No + 1 "
                   "FROM N WHERE No < " +
                   std::to_string(count) +
                   ") INSERT INTO User (No, FirstName, LastName) SELECT No, 'First ' || No, "
                   "'Last ' || (No % 2) FROM N");
    }

    /// The stored values of a user, separated by bars.
    std::string Stored(int no)
    {
        return panel_.Value(
            "SELECT Site || '|' || quote(FirstName) || '|' || quote(MiddleName) || '|' || "
            "quote(LastName) || '|' || quote(Phone) || '|' || quote(CellPhone) || '|' || "
            "quote(Email) || '|' || quote(Ada) || '|' || quote(Exempt) || '|' || "
            "quote(ThreatLevel) || '|' || quote(ImageFile) FROM User WHERE No=" +
            std::to_string(no));
    }

    /// Makes each statement of this kind on a table fail: "INSERT", "UPDATE" or "DELETE".
    void Refuse(const std::string &kind, const std::string &table)
    {
        panel_.Run("CREATE TRIGGER Refuse BEFORE " + kind + " ON " + table +
                   " BEGIN SELECT RAISE(FAIL, 'refused'); END");
    }
};

} // namespace

TEST_F(User, GetUserInfoReturnsEveryField)
{
    EXPECT_EQ(Ask("GetUserInfo?UserNo=3"),
              "GetUserInfoResponse?Result=0&UserNo=3&FirstName=Ada&MiddleName=King"
              "&LastName=Lovelace&PhoneNumber=555-1&CellPhone=555-2&Email=ada@nimbra.example"
              "&Ada=1&Exempt=2&ThreatLevel=3");
    EXPECT_EQ(Ask("GetUserInfo?UserNo=8"),
              "GetUserInfoResponse?Result=0&UserNo=8&FirstName=Alan&MiddleName=&LastName=Turing"
              "&PhoneNumber=&CellPhone=&Email=&Ada=0&Exempt=0&ThreatLevel=-2");
}

TEST_F(User, NullColumnsReadAsEmptyAndZero)
{
    const std::string user = "UserNo=4&FirstName=&MiddleName=&LastName=Nobody&PhoneNumber="
                             "&CellPhone=&Email=&Ada=0&Exempt=0&ThreatLevel=0";
    EXPECT_EQ(Ask("GetUserInfo?UserNo=4"), "GetUserInfoResponse?Result=0&" + user);
    EXPECT_EQ(AskList("GetUserInfoEx?UserNo=4"), ListAnswer("GetUserInfoEx", 1, 0, {user}));
}

TEST_F(User, GetUserInfoReadsItsKeyAndDefaultsToUserZero)
{
    ExpectReadsKeys("GetUserInfo?UserNo=3");
    ExpectFails("GetUserInfo?");
    ExpectFails("GetUserInfo?UserNo=5");
    ExpectFails("GetUserInfo?UserNo=-3");
    panel_.Run("UPDATE User SET No=0 WHERE No=4");
    EXPECT_THAT(Ask("GetUserInfo?"), StartsWith("GetUserInfoResponse?Result=0&UserNo=0&"));
}

TEST_F(User, StoredTextsAreCutAt32Bytes)
{
    const std::string text = "0123456789abcdefghijklmnopqrstuv";
    panel_.Run("UPDATE User SET FirstName='1" + text + "', MiddleName='2" + text +
               "', LastName='3" + text + "', Phone='4" + text + "', CellPhone='5" + text +
               "', Email='6" + text + "' WHERE No=3");
    const std::string cut = text.substr(0, 31);
    const std::string user = "UserNo=3&FirstName=1" + cut + "&MiddleName=2" + cut + "&LastName=3" +
                             cut + "&PhoneNumber=4" + cut + "&CellPhone=5" + cut + "&Email=6" +
                             cut + "&Ada=1&Exempt=2&ThreatLevel=3";
    EXPECT_EQ(Ask("GetUserInfo?UserNo=3"), "GetUserInfoResponse?Result=0&" + user);
    EXPECT_EQ(AskList("GetUserInfoEx?UserNo=3"), ListAnswer("GetUserInfoEx", 1, 0, {user}));
}

TEST_F(User, GetUserInfoExListsAllUsersOnPagesOf25)
{
    MakeUsers(60);
    EXPECT_THAT(AskList("GetUserInfoEx?"), SizeIs(26));
    EXPECT_EQ(AskList("GetUserInfoEx?"), Listed("1"));
    EXPECT_EQ(AskList("GetUserInfoEx?Limit=0"), Listed("1"));
    EXPECT_EQ(AskList("GetUserInfoEx?Offset=50"), Listed("1", 50));
    EXPECT_EQ(AskList("GetUserInfoEx?LastName=Last 1"), Listed("No % 2"));
}

TEST_F(User, PagesFollowOffsetAndLimitAndTotalCountsAll)
{
    MakeUsers(60);
    struct Page
    {
        int Offset;
        int Limit;
    };
    for (const Page page : {Page{10, 5}, {58, 5}, {30, 100}})
        EXPECT_EQ(AskList("GetUserInfoEx?Offset=" + std::to_string(page.Offset) +
                          "&Limit=" + std::to_string(page.Limit)),
                  Listed("1", page.Offset, page.Limit));
    EXPECT_EQ(AskList("GetUserInfoEx?Offset=10&Limit=5")[0],
              "GetUserInfoExResponse?Result=0&Total=60&Offset=10&Count=5");
    EXPECT_EQ(AskList("GetUserInfoEx?LastName=Last 1&Offset=28&Limit=5")[0],
              "GetUserInfoExResponse?Result=0&Total=30&Offset=28&Count=2");
}

TEST_F(User, ListKeepsDatabaseOrder)
{
    panel_.DropKeys("User");
    panel_.Run("INSERT INTO User (No, LastName, Ada) VALUES (3, 'Byron', 1), (1, 'Cyr', 1), "
               "(5, 'Aby', 0), (2, 'Ayr', 1)");
    const auto row = [](const std::string &no, const std::string &name, const std::string &ada) {
        return "UserNo=" + no + "&FirstName=&MiddleName=&LastName=" + name +
               "&PhoneNumber=&CellPhone=&Email=&Ada=" + ada + "&Exempt=0&ThreatLevel=0";
    };
    const std::string three = row("3", "Byron", "1");
    const std::string one = row("1", "Cyr", "1");
    const std::string five = row("5", "Aby", "0");
    const std::string two = row("2", "Ayr", "1");
    EXPECT_EQ(AskList("GetUserInfoEx?"),
              ListAnswer("GetUserInfoEx", 4, 0, {three, one, five, two}));
    for (const char *filter : {"Ada=1", "LastName=yr"})
        EXPECT_EQ(AskList(std::string("GetUserInfoEx?") + filter),
                  ListAnswer("GetUserInfoEx", 3, 0, {three, one, two}))
            << filter;
}

TEST_F(User, EmptyPageFails)
{
    ExpectFails("GetUserInfoEx?Offset=3");
    ExpectFails("GetUserInfoEx?LastName=nowhere");
    panel_.Run("DELETE FROM User");
    ExpectFails("GetUserInfoEx?");
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(User, GetUserInfoExReadsItsKeys)
{
    panel_.Run("ALTER TABLE User ADD COLUMN PhoneNumber TEXT; UPDATE User SET PhoneNumber='555'");
    ExpectReadsKeys("GetUserInfoEx?UserNo=3&FirstName=Ada&MiddleName=King&LastName=Lovelace"
                    "&PhoneNumber=5&CellPhone=5&Email=ada&Ada=1&Exempt=2&ThreatLevel=3&Offset=0"
                    "&Limit=5");
}

TEST_F(User, FiltersApplyAloneAndInPairsAndTotalCountsWithThem)
{
    struct Filter
    {
        std::string Key;
        std::string Yes; ///< in every second user, different ones for each filter
        std::string No;
    };
    const std::vector<Filter> filters = {
        {"FirstName", "Annabel", "Bert"},
        {"MiddleName", "Mac Annals", "Mo"},
        {"LastName", "Hannes", "Smith"},
        {"PhoneNumber", "ann-1", "555"},
        {"CellPhone", "+49 ANN 2", "+44"},
        {"Email", "joann@nimbra.example", "x@nimbra.example"},
        {"Ada", "7", "0"},
        {"Exempt", "7", "1"},
        {"ThreatLevel", "7", "-7"},
    };
    panel_.Run("ALTER TABLE User ADD COLUMN PhoneNumber TEXT; DELETE FROM User");
    for (unsigned no = 1; no <= 16; ++no) {
        std::string columns = "No";
        std::string values = std::to_string(no);
        unsigned mask = 0;
        for (const Filter &filter : filters) {
            const bool isYes = std::popcount((no - 1) & ++mask) % 2 != 0;
            columns += ", " + filter.Key;
            values += ", '" + (isYes ? filter.Yes : filter.No) + "'";
        }
        panel_.Run("INSERT INTO User (" + columns + ") VALUES (" + values + ")");
    }
    struct Clause
    {
        std::string Pair;
        std::string Condition;
    };
    std::vector<Clause> clauses = {{"UserNo=6", "No=6"}};
    for (const Filter &filter : filters) {
        const bool isNumber = filter.Yes == "7";
        clauses.push_back(
            {filter.Key + (isNumber ? "=7" : "=ann"),
             isNumber ? filter.Key + "=7" : "instr(lower(" + filter.Key + "), 'ann') > 0"});
    }
    for (std::size_t i = 0; i < clauses.size(); ++i) {
        SCOPED_TRACE(clauses[i].Pair);
        const auto alone = AskList("GetUserInfoEx?" + clauses[i].Pair);
        EXPECT_EQ(alone, Listed(clauses[i].Condition));
        EXPECT_EQ(alone.size(), i == 0 ? 2U : 9U);
        for (std::size_t j = i + 1; j < clauses.size(); ++j) {
            SCOPED_TRACE(clauses[j].Pair);
            const auto both = AskList("GetUserInfoEx?" + clauses[j].Pair + "&" + clauses[i].Pair);
            EXPECT_EQ(both, Listed(clauses[i].Condition + " AND " + clauses[j].Condition));
            EXPECT_TRUE(i == 0 || both.size() == 5U) << both[0];
        }
    }
    EXPECT_EQ(AskList("GetUserInfoEx?UserNo=0&Ada=0&Exempt=0&ThreatLevel=0"), Listed("1"));
}

TEST_F(User, PhoneFilterFailsWithoutPhoneNumberColumn)
{
    ExpectFails("GetUserInfoEx?PhoneNumber=555");
    ExpectFails("GetUserInfoEx?PhoneNumber=555&UserNo=3");
}

TEST_F(User, PhoneFilterReadsPhoneNumberColumn)
{
    panel_.Run("ALTER TABLE User ADD COLUMN PhoneNumber TEXT;"
               "UPDATE User SET PhoneNumber='777' WHERE No=3;"
               "UPDATE User SET PhoneNumber='888', Phone='777' WHERE No=8");
    EXPECT_THAT(AskList("GetUserInfoEx?PhoneNumber=777")[1], StartsWith("UserNo=3&"));
    EXPECT_EQ(AskList("GetUserInfoEx?PhoneNumber=777")[0],
              "GetUserInfoExResponse?Result=0&Total=1&Offset=0&Count=1");
    ExpectFails("GetUserInfoEx?PhoneNumber=555-1");
}

TEST_F(User, FilterTextIsCutAt32Bytes)
{
    const std::string text = "0123456789abcdefghijklmnopqrstuv";
    panel_.Run("UPDATE User SET LastName='" + text + "' WHERE No=3");
    EXPECT_EQ(AskList("GetUserInfoEx?LastName=" + text + "wxyz"), Listed("No=3"));
}

TEST_F(User, SetUserInfoWritesEveryColumn)
{
    ExpectChanges("SetUserInfo?UserNo=4&FirstName=Grace&MiddleName=B.&LastName=Hopper"
                  "&PhoneNumber=555-7&CellPhone=555-8&Email=grace@nimbra.example&Ada=4&Exempt=-5"
                  "&ThreatLevel=6",
                  {"UPDATE User SET FirstName='Grace', MiddleName='B.', LastName='Hopper', "
                   "Phone='555-7', CellPhone='555-8', Email='grace@nimbra.example', Ada=4, "
                   "Exempt=-5, ThreatLevel=6 WHERE No=4"},
                  10303);
    EXPECT_EQ(Stored(4), "2|'Grace'|'B.'|'Hopper'|'555-7'|'555-8'|'grace@nimbra.example'|4|-5|6|"
                         "NULL");
    EXPECT_EQ(Stored(8), "1|'Alan'|''|'Turing'|''|''|''|0|0|-2|'alan.jpg'");
}

TEST_F(User, SetUserInfoReadsItsKeys)
{
    ExpectReadsKeys("SetUserInfo?UserNo=8&FirstName=F&MiddleName=M&LastName=L&PhoneNumber=P"
                    "&CellPhone=C&Email=E&Ada=1&Exempt=2&ThreatLevel=3");
    const std::vector<std::string> journal = panel_.Journal();
    ASSERT_THAT(journal, SizeIs(3));
    EXPECT_EQ(journal[0], "UPDATE User SET FirstName='F', MiddleName='M', LastName='L', "
                          "Phone='P', CellPhone='C', Email='E', Ada=1, Exempt=2, ThreatLevel=3 "
                          "WHERE No=8");
    EXPECT_EQ(journal[1], journal[0]);
    EXPECT_EQ(journal[2], journal[0]);
}

TEST_F(User, SetUserInfoClearsColumnsOfMissingKeys)
{
    ExpectChanges("SetUserInfo?UserNo=3&LastName=Byron",
                  {"UPDATE User SET FirstName='', MiddleName='', LastName='Byron', Phone='', "
                   "CellPhone='', Email='', Ada=0, Exempt=0, ThreatLevel=0 WHERE No=3"},
                  10303);
    // The image and the site are not fields of the command.
    EXPECT_EQ(Stored(3), "1|''|''|'Byron'|''|''|''|0|0|0|'ada.jpg'");
}

TEST_F(User, SetUserInfoSucceedsForUnknownUser)
{
    ExpectChanges("SetUserInfo?UserNo=99&LastName=Nobody",
                  {"UPDATE User SET FirstName='', MiddleName='', LastName='Nobody', Phone='', "
                   "CellPhone='', Email='', Ada=0, Exempt=0, ThreatLevel=0 WHERE No=99"},
                  10303);
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM User"), "3");
}

TEST_F(User, SetUserInfoNeedsNumberAndLastName)
{
    for (const char *keys : {"", "UserNo=3", "LastName=Byron", "UserNo=0&LastName=Byron",
                             "UserNo=none&LastName=Byron", "UserNo=3&FirstName=Ada&LastName="})
        ExpectRefused(std::string("SetUserInfo?") + keys, 2, "Message fail");
    EXPECT_EQ(agent_.CountInLog("SetUserInfo fail"), 0U);
}

TEST_F(User, TextsAreStoredUpTo32Bytes)
{
    const std::string text = "0123456789abcdefghijklmnopqrstuv";
    ASSERT_EQ(text.size(), 32U);
    const std::string quoted = "'" + text + "'";
    EXPECT_EQ(Ask(WithTexts("SetUserInfo?UserNo=8", text)), "SetUserInfoResponse?Result=0");
    std::string stored = "1";
    for (int i = 0; i < 6; ++i)
        stored += "|" + quoted;
    EXPECT_EQ(Stored(8), stored + "|0|0|0|'alan.jpg'");
    EXPECT_EQ(Ask(WithTexts("SetUserInfo?UserNo=3", text + "wxyz")),
              "SetUserInfoResponse?Result=0");
    EXPECT_EQ(Stored(3), stored + "|0|0|0|'ada.jpg'");
    EXPECT_EQ(Ask(WithTexts("AddUserInfo?Ada=1", text)), "AddUserInfoResponse?Result=0");
    EXPECT_EQ(Stored(9), stored + "|1|0|0|NULL");
    EXPECT_EQ(Ask("GetUserInfo?UserNo=9"),
              WithTexts("GetUserInfoResponse?Result=0&UserNo=9", text) +
                  "&Ada=1&Exempt=0&ThreatLevel=0");
}

TEST_F(User, AddUserInfoUsesNextNumber)
{
    ExpectChanges("AddUserInfo?FirstName=Grace&MiddleName=B.&LastName=Hopper&PhoneNumber=555-7"
                  "&CellPhone=555-8&Email=grace@nimbra.example&Ada=4&Exempt=-5&ThreatLevel=6",
                  {"INSERT INTO User (Site, No, FirstName, MiddleName, LastName, Phone, CellPhone, "
                   "Email, Ada, Exempt, ThreatLevel) VALUES (1, 9, 'Grace', 'B.', 'Hopper', "
                   "'555-7', '555-8', 'grace@nimbra.example', 4, -5, 6)"},
                  10301);
    EXPECT_EQ(Stored(9), "1|'Grace'|'B.'|'Hopper'|'555-7'|'555-8'|'grace@nimbra.example'|4|-5|6|"
                         "NULL");
    ExpectChanges("AddUserInfo?LASTNAME=Only",
                  {"INSERT INTO User (Site, No, FirstName, MiddleName, LastName, Phone, CellPhone, "
                   "Email, Ada, Exempt, ThreatLevel) VALUES (1, 10, '', '', 'Only', '', '', '', 0, "
                   "0, 0)"},
                  10301);
    EXPECT_EQ(Stored(10), "1|''|''|'Only'|''|''|''|0|0|0|NULL");
}

TEST_F(User, AddUserInfoReadsItsKeys)
{
    ExpectReadsKeys("AddUserInfo?FirstName=F&MiddleName=M&LastName=L&PhoneNumber=P&CellPhone=C"
                    "&Email=E&Ada=1&Exempt=2&ThreatLevel=3");
    EXPECT_EQ(Stored(9), "1|'F'|'M'|'L'|'P'|'C'|'E'|1|2|3|NULL");
    EXPECT_EQ(Stored(10), Stored(9));
    EXPECT_EQ(Stored(11), Stored(9));
}

TEST_F(User, FirstUserOfEmptyTableIsNumberOneOfSiteOne)
{
    panel_.Run("DELETE FROM User");
    EXPECT_EQ(Ask("AddUserInfo?LastName=First"), "AddUserInfoResponse?Result=0");
    EXPECT_THAT(panel_.Rows("SELECT Site, No, LastName FROM User"),
                ElementsAre(Row{"1", "1", "First"}));
}

TEST_F(User, NewUserIsNumberOneWhenLargestNumberCannotBeRead)
{
    // A view that accepts new rows and fails every query: its index serves only users of number -1.
    panel_.Run("ALTER TABLE User RENAME TO AllUsers;"
               "CREATE INDEX OnlyOne ON AllUsers (No) WHERE No=-1;"
               "CREATE VIEW User AS SELECT * FROM AllUsers INDEXED BY OnlyOne;"
               "CREATE TRIGGER AddUser INSTEAD OF INSERT ON User BEGIN "
               "INSERT INTO AllUsers (No, LastName) VALUES (NEW.No, NEW.LastName); END");
    EXPECT_EQ(Ask("AddUserInfo?LastName=First"), "AddUserInfoResponse?Result=0");
    EXPECT_EQ(panel_.Value("SELECT LastName FROM AllUsers WHERE No=1"), "First");
}

TEST_F(User, AddUserInfoDoesNotKnowKeyUserNo)
{
    EXPECT_EQ(Ask("AddUserInfo?UserNo=77&LastName=Seven"), "AddUserInfoResponse?Result=0");
    EXPECT_EQ(agent_.CountMessages("ClientWorker.cpp", "AddUserInfo", "Invalid Token: UserNo"), 1U);
    EXPECT_EQ(panel_.Value("SELECT No FROM User WHERE LastName='Seven'"), "9");
}

TEST_F(User, AddUserInfoNeedsLastName)
{
    ExpectRefused("AddUserInfo?", 2, "Message fail");
    ExpectRefused("AddUserInfo?FirstName=Ada&Ada=1", 2, "Message fail");
    ExpectRefused("AddUserInfo?FirstName=Ada&LastName=", 2, "Message fail");
    EXPECT_EQ(agent_.CountInLog("AddUserInfo fail"), 0U);
}

TEST_F(User, IncompleteRequestIsRefusedWithoutReadingDatabase)
{
    ExpectIncomplete("AddUserInfo?");
    ExpectIncomplete("SetUserInfo?UserNo=3");
}

TEST_F(User, DelUserInfoRemovesLevelsThenCardsThenUser)
{
    ExpectChanges("DelUserInfo?UserNo=3",
                  {"DELETE FROM CardAccessLevel WHERE CardNo IN (SELECT No FROM Card WHERE "
                   "UserNo=3)",
                   "DELETE FROM Card WHERE UserNo=3", "DELETE FROM User WHERE No=3"},
                  10302);
    EXPECT_THAT(Lines("SELECT No FROM User ORDER BY No"), ElementsAre("4", "8"));
    EXPECT_THAT(Lines("SELECT No FROM Card ORDER BY No"), ElementsAre("3", "22"));
    EXPECT_THAT(Lines("SELECT No FROM CardAccessLevel ORDER BY No"), ElementsAre("4", "5"));
}

TEST_F(User, DelUserInfoReadsItsKeyAndDefaultsToUserZero)
{
    ExpectReadsKeys("DelUserInfo?UserNo=8");
    EXPECT_THAT(Lines("SELECT No FROM User ORDER BY No"), ElementsAre("3", "4"));
    panel_.Run("INSERT INTO User (No, LastName) VALUES (0, 'Zero')");
    ExpectChanges("DelUserInfo?",
                  {"DELETE FROM CardAccessLevel WHERE CardNo IN (SELECT No FROM Card WHERE "
                   "UserNo=0)",
                   "DELETE FROM Card WHERE UserNo=0", "DELETE FROM User WHERE No=0"},
                  10302);
    EXPECT_THAT(Lines("SELECT No FROM User ORDER BY No"), ElementsAre("3", "4"));
}

TEST_F(User, DelUserInfoThatFailsAtLevelsChangesNothing)
{
    Refuse("DELETE", "CardAccessLevel");
    ExpectBreaksOff("DelUserInfo?UserNo=3", {});
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM CardAccessLevel"), "5");
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM Card"), "4");
}

TEST_F(User, DelUserInfoThatFailsAtCardsHasRemovedLevels)
{
    Refuse("DELETE", "Card");
    ExpectBreaksOff("DelUserInfo?UserNo=3",
                    {"DELETE FROM CardAccessLevel WHERE CardNo IN (SELECT No FROM Card WHERE "
                     "UserNo=3)"});
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM CardAccessLevel"), "2");
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM Card"), "4");
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM User"), "3");
}

TEST_F(User, DelUserInfoThatFailsAtUserHasRemovedLevelsAndCards)
{
    Refuse("DELETE", "User");
    ExpectBreaksOff("DelUserInfo?UserNo=3",
                    {"DELETE FROM CardAccessLevel WHERE CardNo IN (SELECT No FROM Card WHERE "
                     "UserNo=3)",
                     "DELETE FROM Card WHERE UserNo=3"});
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM CardAccessLevel"), "2");
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM Card"), "2");
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM User"), "3");
}

TEST_F(User, SetAndAddFailWhenStatementFails)
{
    Refuse("UPDATE", "User");
    ExpectBreaksOff("SetUserInfo?UserNo=3&LastName=Byron", {});
    panel_.Run("DROP TABLE User");
    ExpectBreaksOff("AddUserInfo?LastName=Byron", {});
    ExpectFails("GetUserInfo?UserNo=3");
    ExpectFails("GetUserInfoEx?");
}

TEST_F(User, EachCommandFailsWhileDatabaseCannotBeOpened)
{
    ExpectNeedsDatabase("GetUserInfo?UserNo=3");
    ExpectNeedsDatabase("GetUserInfoEx?");
    ExpectNeedsDatabase("SetUserInfo?UserNo=3&LastName=Byron");
    ExpectNeedsDatabase("AddUserInfo?LastName=Byron");
    ExpectNeedsDatabase("DelUserInfo?UserNo=3");
    EXPECT_THAT(panel_.Journal(), IsEmpty());
    EXPECT_EQ(AskList("GetUserInfoEx?")[0],
              "GetUserInfoExResponse?Result=0&Total=3&Offset=0&Count=3");
}

} // namespace nimbra::test
