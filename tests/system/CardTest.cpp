#include "support/CommandTest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace nimbra::test {

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

/// Cards with and without values. The number of one card is the record number of another.
constexpr char kCards[] = R"(
DELETE FROM CardFormat;
DELETE FROM Card;
DELETE FROM CardAccessLevel;
INSERT INTO CardFormat (No, Name, IsDefault) VALUES
    (1, '26 bit', 1), (2, 'Corporate', 0), (3, NULL, NULL);
INSERT INTO Card (Site, No, UserNo, CardFormatNo, CardNo, KeyNumber, CardStatus, CardType,
        NeverExpire, ActDate, ExpDate, SelectType) VALUES
    (1, 7, 3, 1, '11', 21, 22, 23, 24, 1767225600, 1798761599, 2),
    (2, 8, 3, 3, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL),
    (1, 11, 4, 2, '7', -1, 0, -2, 0, -86400, 2147483647, 1),
    (1, 12, 3, 9, '120', 0, 0, 0, 0, 0, 0, 1),
    (1, 15, 4, NULL, '150', 0, 0, 0, 0, 0, 0, 1);
INSERT INTO CardAccessLevel (No, CardNo, AccessLevelNo) VALUES (1, 7, 1), (2, 11, 1), (3, 7, 2);
)";

class Card : public CommandTest
{
protected:
    explicit Card(const std::string &timeZone = "UTC0") : CommandTest({}, timeZone)
    {
        panel_.Run(kCards);
    }

    /// The answer to a list request for the cards of a condition, one page of them.
    std::vector<std::string> Listed(const std::string &condition, int offset = 0, int limit = 25)
    {
        const std::string from = " FROM Card WHERE CardFormatNo IN (SELECT No FROM CardFormat) "
                                 "AND (" +
                                 condition + ")";
        const std::vector<std::string> rows =
            Lines("SELECT printf('CardNo=%d&UserNo=%d&FormatNo=%d&FormatName=%s&CardNumber=%s"
                  "&KeyNumber=%d&CardStatus=%d&CardType=%d&NeverExpire=%d&ActDate=%s&ExpDate=%s', "
                  "No, UserNo, CardFormatNo, (SELECT Name FROM CardFormat F WHERE "
                  "F.No=CardFormatNo), CardNo, KeyNumber, CardStatus, CardType, NeverExpire, "
                  "date(IFNULL(ActDate, 0), 'unixepoch'), date(IFNULL(ExpDate, 0), 'unixepoch'))" +
                  from + " ORDER BY No LIMIT " + std::to_string(limit) + " OFFSET " +
                  std::to_string(offset));
        return ListAnswer("GetCardInfoEx", std::stoul(panel_.Value("SELECT COUNT(*)" + from)),
                          offset, rows);
    }

    /// Replaces all cards by `count` cards, assigned to users 1 to 4 round robin.
    void MakeCards(int count)
    {
        panel_.Run("DELETE FROM Card; WITH RECURSIVE N(No) AS (SELECT 1 UNION ALL SELECT No + 1 "
                   "FROM N WHERE No < " +
                   std::to_string(count) +
                   ") INSERT INTO Card (No, UserNo, CardFormatNo, CardNo, ActDate) SELECT No, 1 + "
                   "No % 4, 1 + No % 3, No * 10, No * 100000 FROM N");
    }

    /// The stored values of a card, separated by bars.
    std::string Stored(int no)
    {
        return panel_.Value(
            "SELECT Site || '|' || UserNo || '|' || CardFormatNo || '|' || quote(CardNo) || '|' || "
            "KeyNumber || '|' || CardStatus || '|' || CardType || '|' || NeverExpire || '|' || "
            "ActDate || '|' || ExpDate || '|' || SelectType FROM Card WHERE No=" +
            std::to_string(no));
    }

    /// Shows that a change is refused as a duplicate.
    void ExpectDuplicate(const std::string &request)
    {
        const std::size_t messages = agent_.CountMessages("DataManager.cpp", CommandOf(request),
                                                          "CardFormatNo+CardNo exist");
        ExpectFails(request);
        EXPECT_EQ(agent_.CountMessages("DataManager.cpp", CommandOf(request),
                                       "CardFormatNo+CardNo exist"),
                  messages + 1);
        EXPECT_EQ(agent_.CountInLog("sqlite3_exec fail"), 0U);
    }

    /// Replaces the table by a view that accepts changes of card 7 and new cards, and fails every
    /// other query: its index serves only card 7.
    void BreakQueries()
    {
        panel_.Run(R"(
            DROP INDEX CardUser;
            DROP INDEX CardNumber;
            ALTER TABLE Card RENAME TO AllCards;
            CREATE INDEX OnlySeven ON AllCards (No) WHERE No=7;
            CREATE VIEW Card AS SELECT * FROM AllCards INDEXED BY OnlySeven;
            CREATE TRIGGER AddCard INSTEAD OF INSERT ON Card BEGIN
                INSERT INTO AllCards (No, UserNo, CardFormatNo, CardNo)
                    VALUES (NEW.No, NEW.UserNo, NEW.CardFormatNo, NEW.CardNo);
            END;
            CREATE TRIGGER SetCard INSTEAD OF UPDATE ON Card BEGIN
                UPDATE AllCards SET CardNo=NEW.CardNo WHERE No=NEW.No;
            END;
        )");
    }

    // The pairs of three cards of kCards.
    const std::string seven_ =
        "CardNo=7&UserNo=3&FormatNo=1&FormatName=26 bit&CardNumber=11&KeyNumber=21&CardStatus=22"
        "&CardType=23&NeverExpire=24&ActDate=2026-01-01&ExpDate=2026-12-31";
    const std::string eight_ = "CardNo=8&UserNo=3&FormatNo=3&FormatName=&CardNumber=&KeyNumber=0"
                               "&CardStatus=0&CardType=0&NeverExpire=0&ActDate=1970-01-01"
                               "&ExpDate=1970-01-01";
    const std::string eleven_ =
        "CardNo=11&UserNo=4&FormatNo=2&FormatName=Corporate&CardNumber=7&KeyNumber=-1&CardStatus=0"
        "&CardType=-2&NeverExpire=0&ActDate=1969-12-31&ExpDate=2038-01-19";
};

/// A panel nine hours ahead of UTC.
class CardAheadOfUtc : public Card
{
protected:
    CardAheadOfUtc() : Card("PNL-9") {}
};

} // namespace

TEST_F(Card, GetCardInfoReturnsEveryField)
{
    EXPECT_EQ(Ask("GetCardInfo?CardNo=7"), "GetCardInfoResponse?Result=0&" + seven_);
    EXPECT_EQ(Ask("GetCardInfo?CardNo=11"), "GetCardInfoResponse?Result=0&" + eleven_);
}

TEST_F(Card, NullColumnsReadAsEmptyAndZero)
{
    EXPECT_EQ(Ask("GetCardInfo?CardNo=8"), "GetCardInfoResponse?Result=0&" + eight_);
}

TEST_F(Card, GetCardInfoReadsItsKeyAndDefaultsToCardZero)
{
    ExpectReadsKeys("GetCardInfo?CardNo=7");
    ExpectFails("GetCardInfo?");
    ExpectFails("GetCardInfo?CardNo=99");
    panel_.Run("UPDATE Card SET No=0 WHERE No=8");
    EXPECT_THAT(Ask("GetCardInfo?"), StartsWith("GetCardInfoResponse?Result=0&CardNo=0&UserNo=3&"));
}

TEST_F(Card, CardNoIsRecordNumberAndCardNumberIsNumberOnCard)
{
    // Card 7 holds the number 11, card 11 the number 7.
    EXPECT_EQ(Ask("GetCardInfo?CardNo=7"), "GetCardInfoResponse?Result=0&" + seven_);
    EXPECT_EQ(Ask("SetCardInfo?CardNo=7&UserNo=3&FormatNo=1&CardNumber=8"),
              "SetCardInfoResponse?Result=0");
    EXPECT_EQ(panel_.Value("SELECT CardNo FROM Card WHERE No=7"), "8");
    EXPECT_EQ(Ask("AddCardInfo?UserNo=3&FormatNo=1&CardNumber=11"), "AddCardInfoResponse?Result=0");
    EXPECT_EQ(panel_.Value("SELECT CardNo FROM Card WHERE No=16"), "11");
    EXPECT_EQ(Ask("DelCardInfo?CardNo=11"), "DelCardInfoResponse?Result=0");
    EXPECT_THAT(Lines("SELECT No FROM Card ORDER BY No"), ElementsAre("7", "8", "12", "15", "16"));
}

TEST_F(Card, StoredTextsAreCutAt32Bytes)
{
    const std::string text = "0123456789abcdefghijklmnopqrstuv";
    panel_.Run("UPDATE Card SET CardNo='1" + text + "' WHERE No=8; UPDATE CardFormat SET Name='2" +
               text + "' WHERE No=3");
    const std::string card = "CardNo=8&UserNo=3&FormatNo=3&FormatName=2" + text.substr(0, 31) +
                             "&CardNumber=1" + text.substr(0, 31) +
                             "&KeyNumber=0&CardStatus=0&CardType=0&NeverExpire=0"
                             "&ActDate=1970-01-01&ExpDate=1970-01-01";
    EXPECT_EQ(Ask("GetCardInfo?CardNo=8"), "GetCardInfoResponse?Result=0&" + card);
    EXPECT_EQ(AskList("GetCardInfoEx?UserNo=3"), ListAnswer("GetCardInfoEx", 2, 0, {seven_, card}));
}

TEST_F(Card, CardWithoutFormatIsNotFound)
{
    ExpectFails("GetCardInfo?CardNo=12");
    ExpectFails("GetCardInfo?CardNo=15");
    EXPECT_EQ(AskList("GetCardInfoEx?"),
              ListAnswer("GetCardInfoEx", 3, 0, {seven_, eight_, eleven_}));
    panel_.Run("DELETE FROM CardFormat WHERE No=2");
    ExpectFails("GetCardInfo?CardNo=11");
    ExpectFails("GetCardInfoEx?UserNo=4");
}

TEST_F(Card, GetCardInfoExFiltersByUser)
{
    EXPECT_EQ(AskList("GetCardInfoEx?UserNo=3"),
              ListAnswer("GetCardInfoEx", 2, 0, {seven_, eight_}));
    EXPECT_EQ(AskList("GetCardInfoEx?UserNo=4"), ListAnswer("GetCardInfoEx", 1, 0, {eleven_}));
    EXPECT_EQ(AskList("GetCardInfoEx?UserNo=0"), AskList("GetCardInfoEx?"));
    EXPECT_EQ(AskList("GetCardInfoEx?"), Listed("1"));
    ExpectFails("GetCardInfoEx?UserNo=5");
    ExpectReadsKeys("GetCardInfoEx?UserNo=3&Offset=1&Limit=1");
}

TEST_F(Card, GetCardInfoExListsPagesOf25)
{
    MakeCards(120);
    EXPECT_THAT(AskList("GetCardInfoEx?"), SizeIs(26));
    EXPECT_EQ(AskList("GetCardInfoEx?"), Listed("1"));
    EXPECT_EQ(AskList("GetCardInfoEx?Offset=100&Limit=0"), Listed("1", 100));
    EXPECT_EQ(AskList("GetCardInfoEx?UserNo=2"), Listed("UserNo=2"));
    EXPECT_EQ(AskList("GetCardInfoEx?UserNo=2&Offset=25"), Listed("UserNo=2", 25));
}

TEST_F(Card, PagesFollowOffsetAndLimitAndTotalCountsWithFilter)
{
    MakeCards(60);
    struct Page
    {
        int Offset;
        int Limit;
    };
    for (const Page page : {Page{10, 5}, {13, 5}, {3, 100}}) {
        const std::string keys =
            "Offset=" + std::to_string(page.Offset) + "&Limit=" + std::to_string(page.Limit);
        EXPECT_EQ(AskList("GetCardInfoEx?" + keys), Listed("1", page.Offset, page.Limit));
        EXPECT_EQ(AskList("GetCardInfoEx?UserNo=2&" + keys),
                  Listed("UserNo=2", page.Offset, page.Limit));
    }
    EXPECT_EQ(AskList("GetCardInfoEx?UserNo=2&Offset=10&Limit=3")[0],
              "GetCardInfoExResponse?Result=0&Total=15&Offset=10&Count=3");
}

TEST_F(Card, ListKeepsDatabaseOrder)
{
    panel_.DropKeys("Card");
    panel_.Run("INSERT INTO Card (No, UserNo, CardFormatNo, CardNo) VALUES (3, 5, 2, '20'), "
               "(1, 5, 2, '30'), (4, 6, 1, '5'), (2, 5, 1, '10')");
    const auto row = [](const std::string &pairs) {
        return pairs + "&KeyNumber=0&CardStatus=0&CardType=0&NeverExpire=0&ActDate=1970-01-01"
                       "&ExpDate=1970-01-01";
    };
    const std::string three =
        row("CardNo=3&UserNo=5&FormatNo=2&FormatName=Corporate&CardNumber=20");
    const std::string one = row("CardNo=1&UserNo=5&FormatNo=2&FormatName=Corporate&CardNumber=30");
    const std::string four = row("CardNo=4&UserNo=6&FormatNo=1&FormatName=26 bit&CardNumber=5");
    const std::string two = row("CardNo=2&UserNo=5&FormatNo=1&FormatName=26 bit&CardNumber=10");
    EXPECT_EQ(AskList("GetCardInfoEx?"),
              ListAnswer("GetCardInfoEx", 4, 0, {three, one, four, two}));
    EXPECT_EQ(AskList("GetCardInfoEx?UserNo=5"),
              ListAnswer("GetCardInfoEx", 3, 0, {three, one, two}));
}

TEST_F(Card, EmptyPageFails)
{
    ExpectFails("GetCardInfoEx?Offset=3");
    ExpectFails("GetCardInfoEx?UserNo=3&Offset=2&Limit=5");
    panel_.Run("DELETE FROM Card");
    ExpectFails("GetCardInfoEx?");
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(Card, AddCardInfoUsesNextNumberSiteOneAndPlainLevels)
{
    ExpectChanges("AddCardInfo?UserNo=5&FormatNo=2&CardNumber=1234&KeyNumber=31&CardStatus=32"
                  "&CardType=-33&NeverExpire=34&ActDate=2026-03-01&ExpDate=2027-12-31",
                  {"INSERT INTO Card (Site, No, UserNo, CardFormatNo, CardNo, KeyNumber, "
                   "CardStatus, CardType, NeverExpire, ActDate, ExpDate, SelectType) VALUES (1, "
                   "16, 5, 2, '1234', 31, 32, -33, 34, 1772323200, 1830211200, 1)"},
                  10401);
    EXPECT_EQ(Stored(16), "1|5|2|'1234'|31|32|-33|34|1772323200|1830211200|1");
    EXPECT_EQ(Ask("GetCardInfo?CardNo=16"),
              "GetCardInfoResponse?Result=0&CardNo=16&UserNo=5&FormatNo=2&FormatName=Corporate"
              "&CardNumber=1234&KeyNumber=31&CardStatus=32&CardType=-33&NeverExpire=34"
              "&ActDate=2026-03-01&ExpDate=2027-12-31");
    ExpectChanges("AddCardInfo?userno=5&FORMATNO=2&cardNumber=0001234",
                  {"INSERT INTO Card (Site, No, UserNo, CardFormatNo, CardNo, KeyNumber, "
                   "CardStatus, CardType, NeverExpire, ActDate, ExpDate, SelectType) VALUES (1, "
                   "17, 5, 2, '0001234', 0, 0, 0, 0, 0, 0, 1)"},
                  10401);
}

TEST_F(Card, AddCardInfoReadsItsKeys)
{
    const std::string keys = "UserNo=5&FormatNo=2&CardNumber=1234&KeyNumber=31&CardStatus=32"
                             "&CardType=33&NeverExpire=34&ActDate=2026-03-01&ExpDate=2027-12-31";
    EXPECT_EQ(Ask("AddCardInfo?" + keys), "AddCardInfoResponse?Result=0");
    const std::string stored = Stored(16);
    panel_.Run("DELETE FROM Card WHERE No=16");
    EXPECT_EQ(Ask(WithUpperCaseKeys("AddCardInfo?Unknown=1&" + keys)),
              "AddCardInfoResponse?Result=0");
    EXPECT_EQ(Stored(16), stored);
    EXPECT_EQ(agent_.CountMessages("ClientWorker.cpp", "AddCardInfo", "Invalid Token: UNKNOWN"),
              1U);
}

TEST_F(Card, AddCardInfoDoesNotKnowKeyCardNo)
{
    EXPECT_EQ(Ask("AddCardInfo?CardNo=77&UserNo=5&FormatNo=2&CardNumber=1234"),
              "AddCardInfoResponse?Result=0");
    EXPECT_EQ(agent_.CountMessages("ClientWorker.cpp", "AddCardInfo", "Invalid Token: CardNo"), 1U);
    EXPECT_EQ(panel_.Value("SELECT No FROM Card WHERE CardNo='1234'"), "16");
}

TEST_F(Card, FirstCardOfEmptyTableIsNumberOne)
{
    panel_.Run("DELETE FROM Card");
    EXPECT_EQ(Ask("AddCardInfo?UserNo=5&FormatNo=2&CardNumber=1234"),
              "AddCardInfoResponse?Result=0");
    EXPECT_THAT(Lines("SELECT No FROM Card"), ElementsAre("1"));
}

TEST_F(Card, AddCardInfoNeedsUserFormatAndNumber)
{
    for (const char *keys : {"", "FormatNo=2&CardNumber=1", "UserNo=5&CardNumber=1",
                             "UserNo=5&FormatNo=2", "UserNo=0&FormatNo=2&CardNumber=1",
                             "UserNo=5&FormatNo=x&CardNumber=1", "UserNo=5&FormatNo=2&CardNumber="})
        ExpectRefused(std::string("AddCardInfo?") + keys, 2, "Message fail");
    EXPECT_EQ(agent_.CountInLog("AddCardInfo fail"), 0U);
}

TEST_F(Card, DuplicateNumberOfSameFormatIsRefused)
{
    ExpectDuplicate("AddCardInfo?UserNo=5&FormatNo=1&CardNumber=11");
    // A card without a format counts as well.
    ExpectDuplicate("AddCardInfo?UserNo=5&FormatNo=9&CardNumber=120");
    ExpectDuplicate("SetCardInfo?CardNo=11&UserNo=4&FormatNo=1&CardNumber=11");
    ExpectDuplicate("SetCardInfo?CardNo=99&UserNo=4&FormatNo=2&CardNumber=7");
}

TEST_F(Card, SameNumberOfOtherFormatIsAccepted)
{
    EXPECT_EQ(Ask("AddCardInfo?UserNo=5&FormatNo=2&CardNumber=11"), "AddCardInfoResponse?Result=0");
    EXPECT_EQ(Ask("SetCardInfo?CardNo=8&UserNo=3&FormatNo=3&CardNumber=11"),
              "SetCardInfoResponse?Result=0");
    EXPECT_EQ(agent_.CountInLog("CardFormatNo+CardNo exist"), 0U);
}

TEST_F(Card, CardMayKeepItsOwnNumber)
{
    EXPECT_EQ(Ask("SetCardInfo?CardNo=7&UserNo=3&FormatNo=1&CardNumber=11&KeyNumber=5"),
              "SetCardInfoResponse?Result=0");
    EXPECT_EQ(panel_.Value("SELECT KeyNumber FROM Card WHERE No=7"), "5");
}

TEST_F(Card, FailedDuplicateCheckDoesNotPreventAdding)
{
    BreakQueries();
    // The largest number cannot be read either: the card is number 1.
    EXPECT_EQ(Ask("AddCardInfo?UserNo=5&FormatNo=1&CardNumber=11"), "AddCardInfoResponse?Result=0");
    EXPECT_EQ(panel_.Value("SELECT UserNo FROM AllCards WHERE No=1 AND CardNo='11'"), "5");
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(Card, FailedDuplicateCheckDoesNotPreventSetting)
{
    panel_.Run("UPDATE Card SET CardFormatNo=1 WHERE No=11");
    ExpectDuplicate("SetCardInfo?CardNo=7&UserNo=3&FormatNo=1&CardNumber=7");
    BreakQueries();
    EXPECT_EQ(Ask("SetCardInfo?CardNo=7&UserNo=3&FormatNo=1&CardNumber=7"),
              "SetCardInfoResponse?Result=0");
    EXPECT_EQ(panel_.Value("SELECT CardNo FROM AllCards WHERE No=7"), "7");
}

TEST_F(Card, SetCardInfoWritesEveryColumnExceptSiteAndSelectType)
{
    ExpectChanges("SetCardInfo?CardNo=7&UserNo=5&FormatNo=2&CardNumber=1234&KeyNumber=31"
                  "&CardStatus=32&CardType=-33&NeverExpire=34&ActDate=2026-03-01"
                  "&ExpDate=2027-12-31",
                  {"UPDATE Card SET UserNo=5, CardFormatNo=2, CardNo='1234', KeyNumber=31, "
                   "CardStatus=32, CardType=-33, NeverExpire=34, ActDate=1772323200, "
                   "ExpDate=1830211200 WHERE No=7"},
                  10403);
    EXPECT_EQ(Stored(7), "1|5|2|'1234'|31|32|-33|34|1772323200|1830211200|2");
    EXPECT_EQ(Ask("GetCardInfo?CardNo=11"), "GetCardInfoResponse?Result=0&" + eleven_);
}

TEST_F(Card, SetCardInfoReadsItsKeys)
{
    ExpectReadsKeys("SetCardInfo?CardNo=7&UserNo=5&FormatNo=2&CardNumber=1234&KeyNumber=31"
                    "&CardStatus=32&CardType=33&NeverExpire=34&ActDate=2026-03-01"
                    "&ExpDate=2027-12-31");
    const std::vector<std::string> journal = panel_.Journal();
    ASSERT_THAT(journal, SizeIs(3));
    EXPECT_EQ(journal[1], journal[0]);
    EXPECT_EQ(journal[2], journal[0]);
}

TEST_F(Card, SetCardInfoClearsColumnsOfMissingKeys)
{
    ExpectChanges("SetCardInfo?CardNo=7&UserNo=5&FormatNo=2&CardNumber=1234",
                  {"UPDATE Card SET UserNo=5, CardFormatNo=2, CardNo='1234', KeyNumber=0, "
                   "CardStatus=0, CardType=0, NeverExpire=0, ActDate=0, ExpDate=0 WHERE No=7"},
                  10403);
    EXPECT_EQ(Ask("GetCardInfo?CardNo=7"),
              "GetCardInfoResponse?Result=0&CardNo=7&UserNo=5&FormatNo=2&FormatName=Corporate"
              "&CardNumber=1234&KeyNumber=0&CardStatus=0&CardType=0&NeverExpire=0"
              "&ActDate=1970-01-01&ExpDate=1970-01-01");
}

TEST_F(Card, SetCardInfoSucceedsForUnknownCard)
{
    ExpectChanges("SetCardInfo?CardNo=99&UserNo=5&FormatNo=2&CardNumber=1234",
                  {"UPDATE Card SET UserNo=5, CardFormatNo=2, CardNo='1234', KeyNumber=0, "
                   "CardStatus=0, CardType=0, NeverExpire=0, ActDate=0, ExpDate=0 WHERE No=99"},
                  10403);
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM Card"), "5");
}

TEST_F(Card, SetCardInfoNeedsCardUserFormatAndNumber)
{
    for (const char *keys :
         {"", "UserNo=5&FormatNo=2&CardNumber=1", "CardNo=7&FormatNo=2&CardNumber=1",
          "CardNo=7&UserNo=5&CardNumber=1", "CardNo=7&UserNo=5&FormatNo=2",
          "CardNo=0&UserNo=5&FormatNo=2&CardNumber=1", "CardNo=7&UserNo=5&FormatNo=2&CardNumber="})
        ExpectRefused(std::string("SetCardInfo?") + keys, 2, "Message fail");
    EXPECT_EQ(agent_.CountInLog("SetCardInfo fail"), 0U);
}

TEST_F(Card, IncompleteRequestIsRefusedWithoutReadingDatabase)
{
    // A complete request would be a duplicate of card 7.
    ExpectIncomplete("AddCardInfo?FormatNo=1&CardNumber=11");
    ExpectIncomplete("SetCardInfo?UserNo=3&FormatNo=1&CardNumber=11");
}

TEST_F(Card, CardNumbersAreStoredUpTo32Bytes)
{
    const std::string number = "0123456789abcdefghijklmnopqrstuv";
    EXPECT_EQ(Ask("AddCardInfo?UserNo=5&FormatNo=2&CardNumber=" + number + "wxyz"),
              "AddCardInfoResponse?Result=0");
    EXPECT_EQ(panel_.Value("SELECT CardNo FROM Card WHERE No=16"), number);
    // Cut to 32 bytes, it is the same number.
    ExpectDuplicate("SetCardInfo?CardNo=7&UserNo=5&FormatNo=2&CardNumber=" + number + "1234");
}

TEST_F(Card, DoubledQuoteInNumberIsStoredAsQuoteAndFoundAsDuplicate)
{
    ExpectBreaksOff("AddCardInfo?UserNo=5&FormatNo=2&CardNumber=1'2", {});
    EXPECT_EQ(Ask("AddCardInfo?UserNo=5&FormatNo=2&CardNumber=1''2"),
              "AddCardInfoResponse?Result=0");
    EXPECT_EQ(panel_.Value("SELECT CardNo FROM Card WHERE No=16"), "1'2");
    EXPECT_EQ(Ask("AddCardInfo?UserNo=5&FormatNo=2&CardNumber=1''2"),
              "AddCardInfoResponse?Result=1");
    EXPECT_TRUE(
        agent_.WaitForMessage("DataManager.cpp", "AddCardInfo", "CardFormatNo+CardNo exist"));
}

TEST_F(CardAheadOfUtc, DateIsReadAsLocalMidnightAndReportedAsDayBefore)
{
    EXPECT_EQ(Ask("AddCardInfo?UserNo=5&FormatNo=2&CardNumber=1234&ActDate=2026-03-01"
                  "&ExpDate=2027-01-01"),
              "AddCardInfoResponse?Result=0");
    EXPECT_THAT(panel_.Rows("SELECT ActDate, ExpDate FROM Card WHERE No=16"),
                ElementsAre(Row{"1772290800", "1798729200"}));
    const std::string card = "CardNo=16&UserNo=5&FormatNo=2&FormatName=Corporate&CardNumber=1234"
                             "&KeyNumber=0&CardStatus=0&CardType=0&NeverExpire=0"
                             "&ActDate=2026-02-28&ExpDate=2026-12-31";
    EXPECT_EQ(Ask("GetCardInfo?CardNo=16"), "GetCardInfoResponse?Result=0&" + card);
    EXPECT_EQ(AskList("GetCardInfoEx?UserNo=5"), ListAnswer("GetCardInfoEx", 1, 0, {card}));
}

TEST_F(CardAheadOfUtc, MissingDateIsFirstDayOf1970)
{
    EXPECT_EQ(Ask("SetCardInfo?CardNo=8&UserNo=3&FormatNo=3&CardNumber=5"),
              "SetCardInfoResponse?Result=0");
    EXPECT_EQ(panel_.Value("SELECT ActDate FROM Card WHERE No=8"), "0");
    EXPECT_THAT(Ask("GetCardInfo?CardNo=8"), HasSubstr("&ActDate=1970-01-01&ExpDate=1970-01-01"));
}

TEST_F(Card, DelCardInfoRemovesLevelsAndThenCard)
{
    ExpectChanges("DelCardInfo?CardNo=7",
                  {"DELETE FROM CardAccessLevel WHERE CardNo=7", "DELETE FROM Card WHERE No=7"},
                  10402);
    EXPECT_THAT(Lines("SELECT No FROM Card ORDER BY No"), ElementsAre("8", "11", "12", "15"));
    EXPECT_THAT(Lines("SELECT No FROM CardAccessLevel"), ElementsAre("2"));
    ExpectReadsKeys("DelCardInfo?CardNo=8");
}

TEST_F(Card, DelCardInfoSucceedsForUnknownCard)
{
    ExpectChanges("DelCardInfo?CardNo=99",
                  {"DELETE FROM CardAccessLevel WHERE CardNo=99", "DELETE FROM Card WHERE No=99"},
                  10402);
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM Card"), "5");
}

TEST_F(Card, DelCardInfoWithoutCardDeletesCardZero)
{
    ExpectChanges("DelCardInfo?",
                  {"DELETE FROM CardAccessLevel WHERE CardNo=0", "DELETE FROM Card WHERE No=0"},
                  10402);
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM Card"), "5");
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM CardAccessLevel"), "3");
}

TEST_F(Card, DelCardInfoThatFailsAtCardHasRemovedLevels)
{
    panel_.Run("CREATE TRIGGER Refuse BEFORE DELETE ON Card BEGIN SELECT RAISE(FAIL, 'refused'); "
               "END");
    ExpectBreaksOff("DelCardInfo?CardNo=7", {"DELETE FROM CardAccessLevel WHERE CardNo=7"});
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM Card"), "5");
    EXPECT_THAT(Lines("SELECT No FROM CardAccessLevel"), ElementsAre("2"));
}

TEST_F(Card, DelCardInfoThatFailsAtLevelsChangesNothing)
{
    panel_.Run("ALTER TABLE CardAccessLevel RENAME TO Away");
    ExpectBreaksOff("DelCardInfo?CardNo=7", {});
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM Card"), "5");
}

TEST_F(Card, SetAndAddFailWhenStatementFails)
{
    panel_.Run("DROP TABLE Card");
    ExpectBreaksOff("SetCardInfo?CardNo=7&UserNo=5&FormatNo=2&CardNumber=1", {});
    ExpectBreaksOff("AddCardInfo?UserNo=5&FormatNo=2&CardNumber=1", {});
    ExpectFails("GetCardInfo?CardNo=7");
    ExpectFails("GetCardInfoEx?");
}

TEST_F(Card, EachCommandFailsWhileDatabaseCannotBeOpened)
{
    ExpectNeedsDatabase("GetCardInfo?CardNo=7");
    ExpectNeedsDatabase("GetCardInfoEx?");
    ExpectNeedsDatabase("SetCardInfo?CardNo=7&UserNo=5&FormatNo=2&CardNumber=1");
    ExpectNeedsDatabase("AddCardInfo?UserNo=5&FormatNo=2&CardNumber=1");
    ExpectNeedsDatabase("DelCardInfo?CardNo=7");
    EXPECT_THAT(panel_.Journal(), IsEmpty());
    EXPECT_EQ(AskList("GetCardInfoEx?"), Listed("1"));
}

} // namespace nimbra::test
