#include "support/CommandTest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace nimbra::test {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

/// Plain levels, groups of levels and of other things, and cards with and without levels.
constexpr char kLevels[] = R"(
DELETE FROM AccessLevel;
DELETE FROM GroupTable;
DELETE FROM Card;
DELETE FROM CardAccessLevel;
INSERT INTO AccessLevel (No, Name) VALUES (1, 'Always'), (2, 'Office'), (6, NULL);
INSERT INTO GroupTable (GroupKind, No, Name) VALUES
    (5, 2, 'Staff'), (5, 4, NULL), (4, 2, 'Doors'), (6, 3, 'Others');
INSERT INTO Card (No, UserNo, CardFormatNo, CardNo, SelectType) VALUES
    (7, 1, 1, '70', 2), (8, 1, 1, '80', NULL), (9, 2, 1, '90', 1);
INSERT INTO CardAccessLevel (No, CardNo, AccessLevelNo) VALUES
    (1, 7, 12), (2, 9, 1), (3, 7, -3), (10, 7, 7);
)";

/// The longest line that the agent sends, without its line feed.
constexpr std::size_t kLongestLine = 1022;

std::string InsertOf(int no, int cardNo, int level)
{
    return "INSERT INTO CardAccessLevel (Site, No, CardNo, AccessLevelNo) VALUES (1, " +
           std::to_string(no) + ", " + std::to_string(cardNo) + ", " + std::to_string(level) + ")";
}

class AccessLevel : public CommandTest
{
protected:
    AccessLevel() { panel_.Run(kLevels); }

    /// Sets the levels of card 9.
    void GiveLevels(const std::vector<std::string> &levels)
    {
        std::string sql = "DELETE FROM CardAccessLevel WHERE CardNo=9; BEGIN;";
        for (const std::string &level : levels)
            sql += "INSERT INTO CardAccessLevel (CardNo, AccessLevelNo) VALUES (9, " + level + ");";
        panel_.Run(sql + "COMMIT");
    }

    /// The assignments of a card, in the order of their numbers.
    std::vector<Row> Assigned(int cardNo)
    {
        return panel_.Rows("SELECT Site, No, AccessLevelNo FROM CardAccessLevel WHERE CardNo=" +
                           std::to_string(cardNo) + " ORDER BY No");
    }

    // The rows of kLevels.
    const std::vector<std::string> plain_ = {"SelectType=1&LevelNo=1&Name=Always",
                                             "SelectType=1&LevelNo=2&Name=Office",
                                             "SelectType=1&LevelNo=6&Name="};
    const std::vector<std::string> groups_ = {"SelectType=2&LevelNo=2&Name=Staff",
                                              "SelectType=2&LevelNo=4&Name="};
    const std::vector<std::string> plainAndGroups_ = {plain_[0], plain_[1], plain_[2], groups_[0],
                                                      groups_[1]};
};

} // namespace

TEST_F(AccessLevel, GetAccessLevelReturnsGroup)
{
    EXPECT_EQ(Ask("GetAccessLevel?LevelNo=2"),
              "GetAccessLevelResponse?Result=0&LevelNo=2&Name=Staff");
    EXPECT_EQ(Ask("GetAccessLevel?LevelNo=4"), "GetAccessLevelResponse?Result=0&LevelNo=4&Name=");
    ExpectReadsKeys("GetAccessLevel?SelectType=2&LevelNo=2");
}

TEST_F(AccessLevel, GetAccessLevelReadsGroupsForEverySelectType)
{
    for (const char *kind : {"0", "1", "2", "3", "-1"})
        EXPECT_EQ(Ask(std::string("GetAccessLevel?LevelNo=2&SelectType=") + kind),
                  "GetAccessLevelResponse?Result=0&LevelNo=2&Name=Staff");
    // A plain level and groups of other things.
    ExpectFails("GetAccessLevel?SelectType=1&LevelNo=1");
    ExpectFails("GetAccessLevel?LevelNo=3");
    EXPECT_EQ(agent_.CountInLog("Invalid Token"), 0U);
}

TEST_F(AccessLevel, GetAccessLevelWithoutKeysReadsGroupZero)
{
    ExpectFails("GetAccessLevel?");
    panel_.Run("INSERT INTO GroupTable (GroupKind, No, Name) VALUES (5, 0, 'Zero')");
    EXPECT_EQ(Ask("GetAccessLevel?"), "GetAccessLevelResponse?Result=0&LevelNo=0&Name=Zero");
}

TEST_F(AccessLevel, NamesAreCutAt64Bytes)
{
    const std::string name = std::string(60, 'x') + "1234";
    panel_.Run("UPDATE AccessLevel SET Name='" + name + "5'; UPDATE GroupTable SET Name='" + name +
               "6'");
    EXPECT_EQ(Ask("GetAccessLevel?LevelNo=4"),
              "GetAccessLevelResponse?Result=0&LevelNo=4&Name=" + name);
    EXPECT_EQ(
        AskList("GetAccessLevelEx?"),
        ListAnswer("GetAccessLevelEx", 5, 0,
                   {"SelectType=1&LevelNo=1&Name=" + name, "SelectType=1&LevelNo=2&Name=" + name,
                    "SelectType=1&LevelNo=6&Name=" + name, "SelectType=2&LevelNo=2&Name=" + name,
                    "SelectType=2&LevelNo=4&Name=" + name}));
}

TEST_F(AccessLevel, SelectTypeChoosesPlainLevelsGroupsOrBoth)
{
    EXPECT_EQ(AskList("GetAccessLevelEx?SelectType=1"),
              ListAnswer("GetAccessLevelEx", 3, 0, plain_));
    EXPECT_EQ(AskList("GetAccessLevelEx?SelectType=2"),
              ListAnswer("GetAccessLevelEx", 2, 0, groups_));
    for (const char *keys : {"", "SelectType=0", "SelectType=3", "SelectType=-1"})
        EXPECT_EQ(AskList(std::string("GetAccessLevelEx?") + keys),
                  ListAnswer("GetAccessLevelEx", 5, 0, plainAndGroups_));
    ExpectReadsKeys("GetAccessLevelEx?SelectType=2&Offset=1&Limit=1");
}

TEST_F(AccessLevel, OffsetAndLimitAreNotAppliedAndOffsetIsEchoed)
{
    EXPECT_EQ(AskList("GetAccessLevelEx?Offset=10&Limit=5"),
              ListAnswer("GetAccessLevelEx", 5, 10, plainAndGroups_));
    EXPECT_EQ(AskList("GetAccessLevelEx?SelectType=1&Offset=-1&Limit=1"),
              ListAnswer("GetAccessLevelEx", 3, -1, plain_));
    panel_.Run("DELETE FROM AccessLevel; WITH RECURSIVE N(No) AS (SELECT 1 UNION ALL SELECT No + 1 "
               "FROM N WHERE No < 90) INSERT INTO AccessLevel (No, Name) SELECT No, 'Level ' || No "
               "FROM N");
    EXPECT_EQ(AskList("GetAccessLevelEx?SelectType=1"),
              ListAnswer("GetAccessLevelEx", 90, 0,
                         Lines("SELECT printf('SelectType=1&LevelNo=%d&Name=%s', No, Name) FROM "
                               "AccessLevel ORDER BY No")));
}

TEST_F(AccessLevel, ListKeepsDatabaseOrder)
{
    panel_.DropKeys("AccessLevel");
    panel_.DropKeys("GroupTable");
    panel_.Run("INSERT INTO AccessLevel (No, Name) VALUES (3, 'b'), (1, 'c'), (2, 'a');"
               "INSERT INTO GroupTable (GroupKind, No, Name) VALUES (5, 3, 'e'), (4, 5, 'g'), "
               "(5, 1, 'f'), (5, 2, 'd')");
    EXPECT_EQ(AskList("GetAccessLevelEx?"),
              ListAnswer("GetAccessLevelEx", 6, 0,
                         {"SelectType=1&LevelNo=3&Name=b", "SelectType=1&LevelNo=1&Name=c",
                          "SelectType=1&LevelNo=2&Name=a", "SelectType=2&LevelNo=3&Name=e",
                          "SelectType=2&LevelNo=1&Name=f", "SelectType=2&LevelNo=2&Name=d"}));
}

TEST_F(AccessLevel, CardLevelsKeepDatabaseOrder)
{
    panel_.DropKeys("CardAccessLevel");
    panel_.Run("INSERT INTO CardAccessLevel (No, CardNo, AccessLevelNo) VALUES (9, 7, 20), "
               "(2, 7, 30), (5, 7, 10)");
    EXPECT_EQ(Ask("GetCardAccessLevel?CardNo=7"),
              "GetCardAccessLevelResponse?Result=0&SelectType=2&AccessLevelNo=20 30 10");
}

TEST_F(AccessLevel, EmptyListsFail)
{
    panel_.Run("DELETE FROM AccessLevel");
    ExpectFails("GetAccessLevelEx?SelectType=1");
    EXPECT_EQ(AskList("GetAccessLevelEx?"), ListAnswer("GetAccessLevelEx", 2, 0, groups_));
    panel_.Run("DELETE FROM GroupTable WHERE GroupKind=5");
    ExpectFails("GetAccessLevelEx?SelectType=2");
    ExpectFails("GetAccessLevelEx?");
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(AccessLevel, ListHoldsOneTableWhenOtherIsMissing)
{
    panel_.Run("ALTER TABLE AccessLevel RENAME TO Away");
    EXPECT_EQ(AskList("GetAccessLevelEx?"), ListAnswer("GetAccessLevelEx", 2, 0, groups_));
    ExpectFails("GetAccessLevelEx?SelectType=1");
    panel_.Run("ALTER TABLE Away RENAME TO AccessLevel; DROP TABLE GroupTable");
    EXPECT_EQ(AskList("GetAccessLevelEx?"), ListAnswer("GetAccessLevelEx", 3, 0, plain_));
    ExpectFails("GetAccessLevelEx?SelectType=2");
    ExpectFails("GetAccessLevel?LevelNo=2");
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(AccessLevel, GetCardAccessLevelReturnsSelectTypeAndNumbersInOrder)
{
    EXPECT_EQ(Ask("GetCardAccessLevel?CardNo=7"),
              "GetCardAccessLevelResponse?Result=0&SelectType=2&AccessLevelNo=12 -3 7");
    EXPECT_EQ(Ask("GetCardAccessLevel?CardNo=9"),
              "GetCardAccessLevelResponse?Result=0&SelectType=1&AccessLevelNo=1");
    ExpectReadsKeys("GetCardAccessLevel?CardNo=7");
}

TEST_F(AccessLevel, CardWithoutLevelsHasEmptyList)
{
    EXPECT_EQ(Ask("GetCardAccessLevel?CardNo=8"),
              "GetCardAccessLevelResponse?Result=0&SelectType=0&AccessLevelNo=");
}

TEST_F(AccessLevel, GetCardAccessLevelFailsForUnknownCardAndWithoutCard)
{
    ExpectFails("GetCardAccessLevel?CardNo=99");
    ExpectFails("GetCardAccessLevel?");
    panel_.Run("INSERT INTO Card (No, UserNo, SelectType) VALUES (0, 1, 5)");
    EXPECT_EQ(Ask("GetCardAccessLevel?"),
              "GetCardAccessLevelResponse?Result=0&SelectType=5&AccessLevelNo=");
}

TEST_F(AccessLevel, CardHasEmptyListWithoutAssignmentTable)
{
    panel_.Run("DROP TABLE CardAccessLevel");
    EXPECT_EQ(Ask("GetCardAccessLevel?CardNo=7"),
              "GetCardAccessLevelResponse?Result=0&SelectType=2&AccessLevelNo=");
    panel_.Run("DROP TABLE Card");
    ExpectFails("GetCardAccessLevel?CardNo=7");
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(AccessLevel, ListOf400LevelsHoldsAsManyWholeNumbersAsFitLine)
{
    std::vector<std::string> levels;
    for (int i = 0; i < 400; ++i)
        levels.push_back(std::to_string(i * i * 37 % 100003));
    GiveLevels(levels);
    std::string expected = "GetCardAccessLevelResponse?Result=0&SelectType=1&AccessLevelNo=";
    const std::size_t start = expected.size();
    for (const std::string &level : levels) {
        const std::string item = (expected.size() == start ? "" : " ") + level;
        if (expected.size() + item.size() > kLongestLine)
            break;
        expected += item;
    }
    ASSERT_GT(expected.size(), kLongestLine - 6);
    client_->SendLine("GetCardAccessLevel?CardNo=9");
    client_->SendLine("Heartbeat?");
    EXPECT_EQ(client_->ReadLine(), expected);
    EXPECT_EQ(client_->ReadLine(), "HeartbeatResponse?Result=0");
}

TEST_F(AccessLevel, ListThatFitsLineIsCompleteAndOneByteMoreDropsLastNumber)
{
    const std::string lead = "GetCardAccessLevelResponse?Result=0&SelectType=1&AccessLevelNo=";
    const std::size_t space = kLongestLine - lead.size();
    // Numbers of one digit with their blanks, and a last one that fills the line.
    const std::size_t ones = (space - 6) / 2;
    std::string list;
    for (std::size_t i = 0; i < ones; ++i)
        list += "1 ";
    const std::string last(space - list.size(), '2');
    std::vector<std::string> levels(ones, "1");
    levels.push_back(last);
    GiveLevels(levels);
    EXPECT_EQ(Ask("GetCardAccessLevel?CardNo=9"), lead + list + last);
    // There is no space for another number.
    levels.emplace_back("3");
    GiveLevels(levels);
    EXPECT_EQ(Ask("GetCardAccessLevel?CardNo=9"), lead + list + last);
    // With one digit more the last number does not fit either.
    levels[ones] = last + "2";
    GiveLevels(levels);
    EXPECT_EQ(Ask("GetCardAccessLevel?CardNo=9"), lead + list.substr(0, list.size() - 1));
    EXPECT_EQ(Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
}

TEST_F(AccessLevel, SetCardAccessLevelReplacesAllAssignments)
{
    ExpectChanges("SetCardAccessLevel?CardNo=7&SelectType=1&AccessLevelNo=3 1 2",
                  {"UPDATE Card SET SelectType=1 WHERE No=7",
                   "DELETE FROM CardAccessLevel WHERE CardNo=7", InsertOf(3, 7, 3),
                   InsertOf(4, 7, 1), InsertOf(5, 7, 2)},
                  10403);
    EXPECT_THAT(Assigned(7),
                ElementsAre(Row{"1", "3", "3"}, Row{"1", "4", "1"}, Row{"1", "5", "2"}));
    EXPECT_THAT(Assigned(9), ElementsAre(Row{"1", "2", "1"}));
    EXPECT_EQ(Ask("GetCardAccessLevel?CardNo=7"),
              "GetCardAccessLevelResponse?Result=0&SelectType=1&AccessLevelNo=3 1 2");
    EXPECT_EQ(panel_.Value("SELECT SelectType FROM Card WHERE No=9"), "1");
}

TEST_F(AccessLevel, NewAssignmentsAreNumberedFromLargestNumber)
{
    panel_.Run("INSERT INTO CardAccessLevel (No, CardNo, AccessLevelNo) VALUES (500, 9, 2)");
    ExpectChanges("SetCardAccessLevel?CardNo=7&SelectType=2&AccessLevelNo=1 2 3",
                  {"UPDATE Card SET SelectType=2 WHERE No=7",
                   "DELETE FROM CardAccessLevel WHERE CardNo=7", InsertOf(501, 7, 1),
                   InsertOf(502, 7, 2), InsertOf(503, 7, 3)},
                  10403);
    EXPECT_EQ(Ask("GetCardAccessLevel?CardNo=7"),
              "GetCardAccessLevelResponse?Result=0&SelectType=2&AccessLevelNo=1 2 3");
}

TEST_F(AccessLevel, FirstAssignmentOfEmptyTableIsNumberOne)
{
    panel_.Run("DELETE FROM CardAccessLevel");
    EXPECT_EQ(Ask("SetCardAccessLevel?CardNo=7&AccessLevelNo=4 5"),
              "SetCardAccessLevelResponse?Result=0");
    EXPECT_THAT(Assigned(7), ElementsAre(Row{"1", "1", "4"}, Row{"1", "2", "5"}));
}

TEST_F(AccessLevel, AssignmentsAreNumberOneWhenLargestNumberCannotBeRead)
{
    // A view that accepts changes of card 7 and fails every query for other cards.
    panel_.Run(R"(
        DROP TABLE CardAccessLevel;
        CREATE TABLE AllLevels (Site INTEGER, No INTEGER, CardNo INTEGER, AccessLevelNo INTEGER);
        INSERT INTO AllLevels VALUES (1, 80, 7, 1), (1, 90, 9, 1);
        CREATE INDEX OnlySeven ON AllLevels (CardNo) WHERE CardNo=7;
        CREATE VIEW CardAccessLevel AS SELECT * FROM AllLevels INDEXED BY OnlySeven;
        CREATE TRIGGER AddLevel INSTEAD OF INSERT ON CardAccessLevel BEGIN
            INSERT INTO AllLevels VALUES (NEW.Site, NEW.No, NEW.CardNo, NEW.AccessLevelNo);
        END;
        CREATE TRIGGER DelLevel INSTEAD OF DELETE ON CardAccessLevel BEGIN
            DELETE FROM AllLevels WHERE No=OLD.No;
        END;
    )");
    EXPECT_EQ(Ask("SetCardAccessLevel?CardNo=7&AccessLevelNo=4 5"),
              "SetCardAccessLevelResponse?Result=0");
    EXPECT_THAT(panel_.Rows("SELECT No, CardNo, AccessLevelNo FROM AllLevels ORDER BY rowid"),
                ElementsAre(Row{"90", "9", "1"}, Row{"1", "7", "4"}, Row{"1", "7", "5"}));
}

TEST_F(AccessLevel, SetCardAccessLevelReadsItsKeys)
{
    ExpectReadsKeys("SetCardAccessLevel?CardNo=7&SelectType=1&AccessLevelNo=5 6");
    EXPECT_THAT(panel_.Journal(), SizeIs(12));
    EXPECT_EQ(Ask("GetCardAccessLevel?CardNo=7"),
              "GetCardAccessLevelResponse?Result=0&SelectType=1&AccessLevelNo=5 6");
}

TEST_F(AccessLevel, EmptyListRemovesAllAssignmentsAndSetsSelectType)
{
    const std::vector<std::string> statements = {"UPDATE Card SET SelectType=1 WHERE No=7",
                                                 "DELETE FROM CardAccessLevel WHERE CardNo=7"};
    for (const char *list : {"", "&AccessLevelNo=", "&AccessLevelNo=   "}) {
        panel_.Run("UPDATE Card SET SelectType=2 WHERE No=7;"
                   "INSERT INTO CardAccessLevel (CardNo, AccessLevelNo) VALUES (7, 1)");
        ExpectChanges(std::string("SetCardAccessLevel?CardNo=7&SelectType=1") + list, statements,
                      10403);
        EXPECT_EQ(Ask("GetCardAccessLevel?CardNo=7"),
                  "GetCardAccessLevelResponse?Result=0&SelectType=1&AccessLevelNo=");
    }
}

TEST_F(AccessLevel, MissingSelectTypeIsStoredAsZero)
{
    EXPECT_EQ(Ask("SetCardAccessLevel?CardNo=7&AccessLevelNo=1"),
              "SetCardAccessLevelResponse?Result=0");
    EXPECT_EQ(panel_.Value("SELECT SelectType FROM Card WHERE No=7"), "0");
}

TEST_F(AccessLevel, SeveralBlanksAreOneSeparator)
{
    EXPECT_EQ(Ask("SetCardAccessLevel?CardNo=7&AccessLevelNo=  1  2   3 "),
              "SetCardAccessLevelResponse?Result=0");
    EXPECT_EQ(Ask("GetCardAccessLevel?CardNo=7"),
              "GetCardAccessLevelResponse?Result=0&SelectType=0&AccessLevelNo=1 2 3");
}

TEST_F(AccessLevel, ItemThatIsNoNumberIsInsertedAsZero)
{
    ExpectChanges("SetCardAccessLevel?CardNo=7&AccessLevelNo=x 5y -3 1,2 '",
                  {"UPDATE Card SET SelectType=0 WHERE No=7",
                   "DELETE FROM CardAccessLevel WHERE CardNo=7", InsertOf(3, 7, 0),
                   InsertOf(4, 7, 5), InsertOf(5, 7, -3), InsertOf(6, 7, 1), InsertOf(7, 7, 0)},
                  10403);
}

TEST_F(AccessLevel, OnlyBlankIsSeparator)
{
    ExpectChanges("SetCardAccessLevel?CardNo=7&AccessLevelNo=1\t2 3",
                  {"UPDATE Card SET SelectType=0 WHERE No=7",
                   "DELETE FROM CardAccessLevel WHERE CardNo=7", InsertOf(3, 7, 1),
                   InsertOf(4, 7, 3)},
                  10403);
}

TEST_F(AccessLevel, ListWithoutCardIsInsertedUnderCardZero)
{
    ExpectChanges("SetCardAccessLevel?SelectType=1&AccessLevelNo=4 5",
                  {"UPDATE Card SET SelectType=1 WHERE No=0",
                   "DELETE FROM CardAccessLevel WHERE CardNo=0", InsertOf(11, 0, 4),
                   InsertOf(12, 0, 5)},
                  10403);
    EXPECT_THAT(Assigned(0), ElementsAre(Row{"1", "11", "4"}, Row{"1", "12", "5"}));
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM Card WHERE SelectType=2"), "1");
    ExpectChanges(
        "SetCardAccessLevel?",
        {"UPDATE Card SET SelectType=0 WHERE No=0", "DELETE FROM CardAccessLevel WHERE CardNo=0"},
        10403);
    EXPECT_THAT(Assigned(0), IsEmpty());
}

TEST_F(AccessLevel, UnknownCardAndLevelsAreAccepted)
{
    EXPECT_EQ(Ask("SetCardAccessLevel?CardNo=99&SelectType=7&AccessLevelNo=98"),
              "SetCardAccessLevelResponse?Result=0");
    EXPECT_THAT(Assigned(99), ElementsAre(Row{"1", "11", "98"}));
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM Card"), "3");
}

TEST_F(AccessLevel, ListOfLongestRequestIsTakenCompletely)
{
    std::string request = "SetCardAccessLevel?CardNo=9&SelectType=1&AccessLevelNo=";
    std::string list;
    int count = 0;
    while (request.size() + list.size() + 5 <= 1023) {
        list += (list.empty() ? "" : " ") + std::to_string(1000 + count);
        ++count;
    }
    ASSERT_GT(count, 180);
    request += list;
    EXPECT_EQ(Ask(request, kSoon * 3), "SetCardAccessLevelResponse?Result=0");
    EXPECT_EQ(
        panel_.Value("SELECT group_concat(AccessLevelNo, ' ') FROM (SELECT AccessLevelNo FROM "
                     "CardAccessLevel WHERE CardNo=9 ORDER BY No)"),
        list);
    EXPECT_THAT(panel_.Journal(), SizeIs(static_cast<std::size_t>(count) + 2));
}

TEST_F(AccessLevel, SetThatFailsAtCardChangesNothing)
{
    panel_.Run("CREATE TRIGGER Refuse BEFORE UPDATE ON Card BEGIN SELECT RAISE(FAIL, 'refused'); "
               "END");
    ExpectBreaksOff("SetCardAccessLevel?CardNo=7&SelectType=1&AccessLevelNo=1", {});
    EXPECT_EQ(Assigned(7).size(), 3U);
}

TEST_F(AccessLevel, SetThatFailsAtOldAssignmentsHasSetSelectType)
{
    panel_.Run("CREATE TRIGGER Refuse BEFORE DELETE ON CardAccessLevel BEGIN SELECT RAISE(FAIL, "
               "'refused'); END");
    ExpectBreaksOff("SetCardAccessLevel?CardNo=7&SelectType=1&AccessLevelNo=1",
                    {"UPDATE Card SET SelectType=1 WHERE No=7"});
    EXPECT_EQ(panel_.Value("SELECT SelectType FROM Card WHERE No=7"), "1");
    EXPECT_EQ(Assigned(7).size(), 3U);
}

TEST_F(AccessLevel, SetThatFailsAtNewAssignmentKeepsEarlierOnes)
{
    panel_.Run("CREATE TRIGGER Refuse BEFORE INSERT ON CardAccessLevel WHEN NEW.AccessLevelNo=3 "
               "BEGIN SELECT RAISE(FAIL, 'refused'); END");
    ExpectBreaksOff("SetCardAccessLevel?CardNo=7&SelectType=1&AccessLevelNo=1 2 3 4",
                    {"UPDATE Card SET SelectType=1 WHERE No=7",
                     "DELETE FROM CardAccessLevel WHERE CardNo=7", InsertOf(3, 7, 1),
                     InsertOf(4, 7, 2)});
    EXPECT_THAT(Assigned(7), ElementsAre(Row{"1", "3", "1"}, Row{"1", "4", "2"}));
}

TEST_F(AccessLevel, EachCommandFailsWhileDatabaseCannotBeOpened)
{
    ExpectNeedsDatabase("GetAccessLevel?LevelNo=2");
    ExpectNeedsDatabase("GetAccessLevelEx?");
    ExpectNeedsDatabase("GetCardAccessLevel?CardNo=7");
    ExpectNeedsDatabase("SetCardAccessLevel?CardNo=7&AccessLevelNo=1");
    EXPECT_THAT(panel_.Journal(), IsEmpty());
    EXPECT_EQ(AskList("GetAccessLevelEx?"), ListAnswer("GetAccessLevelEx", 5, 0, plainAndGroups_));
}

} // namespace nimbra::test
