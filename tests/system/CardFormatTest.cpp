#include "support/CommandTest.h"

#include <string>
#include <vector>

namespace nimbra::test {

namespace {

constexpr char kFormats[] = R"(
DELETE FROM CardFormat;
INSERT INTO CardFormat (No, Name, IsDefault) VALUES
    (2, '26 bit', 1), (3, 'Corporate', 0), (5, NULL, NULL), (9, 'Mobile', -7);
)";

class CardFormat : public CommandTest
{
protected:
    CardFormat() { panel_.Run(kFormats); }

    /// The rows of kFormats.
    const std::vector<std::string> rows_ = {
        "FormatNo=2&Name=26 bit&Default=1", "FormatNo=3&Name=Corporate&Default=0",
        "FormatNo=5&Name=&Default=0", "FormatNo=9&Name=Mobile&Default=-7"};
};

} // namespace

TEST_F(CardFormat, GetCardFormatReturnsEveryField)
{
    EXPECT_EQ(Ask("GetCardFormat?FormatNo=2"), "GetCardFormatResponse?Result=0&" + rows_[0]);
    EXPECT_EQ(Ask("GetCardFormat?FormatNo=3"), "GetCardFormatResponse?Result=0&" + rows_[1]);
    EXPECT_EQ(Ask("GetCardFormat?FormatNo=9"), "GetCardFormatResponse?Result=0&" + rows_[3]);
}

TEST_F(CardFormat, NullColumnsReadAsEmptyAndZero)
{
    EXPECT_EQ(Ask("GetCardFormat?FormatNo=5"), "GetCardFormatResponse?Result=0&" + rows_[2]);
}

TEST_F(CardFormat, GetCardFormatReadsItsKeyAndDefaultsToFormatZero)
{
    ExpectReadsKeys("GetCardFormat?FormatNo=3");
    ExpectFails("GetCardFormat?");
    ExpectFails("GetCardFormat?FormatNo=1");
    panel_.Run("UPDATE CardFormat SET No=0 WHERE No=3");
    EXPECT_EQ(Ask("GetCardFormat?"),
              "GetCardFormatResponse?Result=0&FormatNo=0&Name=Corporate&Default=0");
}

TEST_F(CardFormat, NamesAreCutAt64Bytes)
{
    const std::string name = std::string(60, 'x') + "1234";
    panel_.Run("DELETE FROM CardFormat;"
               "INSERT INTO CardFormat (No, Name, IsDefault) VALUES (1, '" +
               name + "', 0), (2, '" + name + "5', 1)");
    const std::vector<std::string> rows = {"FormatNo=1&Name=" + name + "&Default=0",
                                           "FormatNo=2&Name=" + name + "&Default=1"};
    EXPECT_EQ(Ask("GetCardFormat?FormatNo=2"), "GetCardFormatResponse?Result=0&" + rows[1]);
    EXPECT_EQ(AskList("GetCardFormatEx?"), ListAnswer("GetCardFormatEx", 2, 0, rows));
}

TEST_F(CardFormat, GetCardFormatExListsEveryFormat)
{
    EXPECT_EQ(AskList("GetCardFormatEx?"), ListAnswer("GetCardFormatEx", 4, 0, rows_));
    ExpectReadsKeys("GetCardFormatEx?Offset=2&Limit=3");
}

TEST_F(CardFormat, OffsetAndLimitAreNotAppliedAndOffsetIsEchoed)
{
    EXPECT_EQ(AskList("GetCardFormatEx?Offset=5&Limit=1"),
              ListAnswer("GetCardFormatEx", 4, 5, rows_));
    EXPECT_EQ(AskList("GetCardFormatEx?Offset=-3"), ListAnswer("GetCardFormatEx", 4, -3, rows_));
    EXPECT_EQ(AskList("GetCardFormatEx?Limit=2"), ListAnswer("GetCardFormatEx", 4, 0, rows_));
}

TEST_F(CardFormat, ListLongerThanPageIsComplete)
{
    panel_.Run("DELETE FROM CardFormat; WITH RECURSIVE N(No) AS (SELECT 1 UNION ALL SELECT No + 1 "
               "FROM N WHERE No < 90) INSERT INTO CardFormat (No, Name, IsDefault) SELECT No, "
               "'Format ' || No, No % 2 FROM N");
    EXPECT_EQ(
        AskList("GetCardFormatEx?"),
        ListAnswer("GetCardFormatEx", 90, 0,
                   Lines("SELECT printf('FormatNo=%d&Name=%s&Default=%d', No, Name, IsDefault) "
                         "FROM CardFormat ORDER BY No")));
}

TEST_F(CardFormat, ListKeepsDatabaseOrder)
{
    panel_.DropKeys("CardFormat");
    panel_.Run("INSERT INTO CardFormat (No, Name, IsDefault) VALUES (3, 'b', 0), (1, 'c', 1), "
               "(2, 'a', 0)");
    EXPECT_EQ(AskList("GetCardFormatEx?"),
              ListAnswer("GetCardFormatEx", 3, 0,
                         {"FormatNo=3&Name=b&Default=0", "FormatNo=1&Name=c&Default=1",
                          "FormatNo=2&Name=a&Default=0"}));
}

TEST_F(CardFormat, EmptyTableFails)
{
    panel_.Run("DELETE FROM CardFormat");
    ExpectFails("GetCardFormatEx?");
    ExpectFails("GetCardFormat?FormatNo=2");
}

TEST_F(CardFormat, EachCommandFailsWithoutDatabaseOrTable)
{
    ExpectNeedsDatabase("GetCardFormat?FormatNo=2");
    ExpectNeedsDatabase("GetCardFormatEx?");
    EXPECT_EQ(AskList("GetCardFormatEx?"), ListAnswer("GetCardFormatEx", 4, 0, rows_));
    panel_.Run("DROP TABLE CardFormat");
    ExpectFails("GetCardFormat?FormatNo=2");
    ExpectFails("GetCardFormatEx?");
    EXPECT_EQ(agent_.CountInLog("sqlite3_exec fail"), 0U);
}

} // namespace nimbra::test
