// Event codes and their descriptions: one code, and the filtered and paged list.

#include "support/CommandTest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace nimbra::test {
namespace {

using ::testing::UnorderedElementsAreArray;

namespace fs = std::filesystem;

class EventCode : public CommandTest
{
protected:
    /// The expected list rows of the codes for which a condition holds, in the order of their
    /// numbers.
    [[nodiscard]] std::vector<std::string> Select(const std::string &condition) const
    {
        return Lines("SELECT 'Code=' || EventCode || '&Desc=' || substr(IFNULL(Name, ''), 1, 64)"
                     " FROM EventCode WHERE " +
                     condition + " ORDER BY EventCode");
    }

    /// The answer to a list, its rows in the order of their numbers.
    [[nodiscard]] std::vector<std::string> AskSorted(const std::string &request)
    {
        std::vector<std::string> answer = AskList(request);
        const std::vector<std::string> all = Select("1");
        const auto place = [&](const std::string &row) {
            return std::find(all.begin(), all.end(), row);
        };
        std::sort(answer.begin() + 1, answer.end(),
                  [&](const std::string &a, const std::string &b) { return place(a) < place(b); });
        return answer;
    }

    /// Shows that a list without paging has these rows and their count.
    void ExpectRows(const std::string &keys, const std::vector<std::string> &rows)
    {
        EXPECT_EQ(AskSorted("GetEventCodeEx?" + keys),
                  ListAnswer("GetEventCodeEx", rows.size(), 0, rows))
            << keys;
    }
};

// One code

TEST_F(EventCode, GetEventCodeReturnsDescription)
{
    for (const panel::SampleEventCode &code : panel::kEventCodes) {
        const std::string number = std::to_string(code.Code);
        const std::string name = code.Name == nullptr ? "" : code.Name;
        EXPECT_EQ(Ask("GetEventCode?Code=" + number),
                  "GetEventCodeResponse?Result=0&Code=" + number + "&Desc=" + name.substr(0, 64));
    }
    ExpectReadsKeys("GetEventCode?Code=10001");
}

TEST_F(EventCode, CodeZeroIsReadLikeAnyOther)
{
    const std::string zero = "GetEventCodeResponse?Result=0&Code=0&Desc=No event";
    EXPECT_EQ(Ask("GetEventCode?"), zero);
    EXPECT_EQ(Ask("GetEventCode?Code=0"), zero);
    panel_.Run("DELETE FROM EventCode WHERE EventCode=0");
    ExpectFails("GetEventCode?");
}

TEST_F(EventCode, GetEventCodeFailsForUnknownCode)
{
    for (const char *code : {"1", "10000", "-10001", "99999", "2147483647"})
        ExpectFails(std::string("GetEventCode?Code=") + code);
}

TEST_F(EventCode, CodesOfAnySizeAreReturnedAndNamesCutAt64Bytes)
{
    for (const std::size_t length : {0U, 64U, 65U}) {
        const std::string name(length, 'n');
        panel_.Run("INSERT OR REPLACE INTO EventCode VALUES (-2147483648, '" + name +
                   "'), (2147483647, '" + name + "')");
        for (const std::string code : {"-2147483648", "2147483647"}) {
            const std::string pairs = "Code=" + code + "&Desc=" + name.substr(0, 64);
            EXPECT_EQ(Ask("GetEventCode?Code=" + code), "GetEventCodeResponse?Result=0&" + pairs);
            ExpectRows("Code=" + code, {pairs});
        }
    }
}

TEST_F(EventCode, NamesAreReturnedUnchanged)
{
    panel_.Run("INSERT INTO EventCode VALUES (30000, 'T\xC3\xBCr & Co = \"%s%n\" \\ \xFF')");
    EXPECT_EQ(Ask("GetEventCode?Code=30000"),
              "GetEventCodeResponse?Result=0&Code=30000&Desc=T\xC3\xBCr & Co = \"%s%n\" \\ \xFF");
}

// The list

TEST_F(EventCode, ListWithoutKeysHoldsEveryCode)
{
    const std::vector<std::string> all = Select("1");
    ASSERT_EQ(all.size(), panel::kEventCodes.size());
    ExpectRows("", all);
    ExpectRows("Code=0&Limit=0&Offset=0", all);
    ExpectRows("Code=abc", all);
    ExpectReadsKeys("GetEventCodeEx?");
}

TEST_F(EventCode, CodeFilterSelectsCode)
{
    for (const panel::SampleEventCode &code : panel::kEventCodes)
        if (code.Code != 0)
            ExpectRows("Code=" + std::to_string(code.Code),
                       Select("EventCode=" + std::to_string(code.Code)));
    ExpectFails("GetEventCodeEx?Code=1");
    ExpectFails("GetEventCodeEx?Code=-10001");
}

TEST_F(EventCode, DescriptionFilterSelectsBySubstring)
{
    const auto has = [this](const std::string &text) {
        return Select("instr(lower(Name), '" + text + "') > 0");
    };
    ASSERT_GE(has("door").size(), 5U);
    for (const char *written : {"door", "Door", "DOOR", "oor"})
        ExpectRows(std::string("Desc=") + written, has(written[1] == 'o' ? "oor" : "door"));
    ExpectRows("Desc=Access denied: ", has("access denied: "));
    ExpectRows("Desc=d%r", Select("Name LIKE '%d%r%'"));
    ExpectRows("Desc=d__r", has("door"));
    ExpectRows("Desc=%", Select("Name IS NOT NULL"));
    ExpectFails("GetEventCodeEx?Desc=doors that are not there");
    ExpectFails("GetEventCodeEx?Desc=door\r");
    ExpectReadsKeys("GetEventCodeEx?Desc=door");
}

TEST_F(EventCode, FiltersApplyTogether)
{
    ExpectRows("Code=10101&Desc=door", Select("EventCode=10101"));
    ExpectRows("Desc=door&Code=10101", Select("EventCode=10101"));
    ExpectFails("GetEventCodeEx?Code=10101&Desc=card");
    ExpectFails("GetEventCodeEx?Code=1&Desc=door");
}

TEST_F(EventCode, DescriptionFilterIsCutAt64Bytes)
{
    const std::string name(70, 'n');
    panel_.Run("INSERT INTO EventCode VALUES (30000, '" + name + "')");
    const std::vector<std::string> rows = Select("EventCode=30000");
    ExpectRows("Desc=" + name.substr(0, 63), rows);
    ExpectRows("Desc=" + name.substr(0, 64), rows);
    ExpectRows("Desc=" + name.substr(0, 64) + "x", rows);
    ExpectFails("GetEventCodeEx?Desc=" + name.substr(0, 63) + "x");
    ExpectFails("GetEventCodeEx?Desc=" + name.substr(0, 63) + "''");
}

TEST_F(EventCode, TotalCountsAllMatchesOnEveryPage)
{
    struct Case
    {
        const char *Keys;
        int Offset; ///< in the header of the answer
        std::size_t Total;
        std::size_t Count;
    };
    const std::size_t all = Select("1").size();
    const std::size_t doors = Select("instr(lower(Name), 'door') > 0").size();
    ASSERT_EQ(all, 38U);
    ASSERT_GT(doors, 3U);
    const std::vector<Case> cases = {
        {"Limit=10", 0, all, 10},
        {"Limit=39", 0, all, 38},
        {"Limit=-1", 0, all, 38}, // a negative limit is no limit
        {"Limit=10&Offset=30", 30, all, 8},
        {"Limit=10&Offset=-3", -3, all, 10}, // a negative offset is no offset
        {"Desc=door&Limit=2&Offset=1", 1, doors, 2},
        {"Code=10101&Limit=5", 0, 1, 1},
    };
    for (const Case &c : cases) {
        const std::vector<std::string> answer = AskList(std::string("GetEventCodeEx?") + c.Keys);
        EXPECT_EQ(answer[0], "GetEventCodeExResponse?Result=0&Total=" + std::to_string(c.Total) +
                                 "&Offset=" + std::to_string(c.Offset) +
                                 "&Count=" + std::to_string(c.Count))
            << c.Keys;
        EXPECT_EQ(answer.size(), c.Count + 1) << c.Keys;
    }
}

TEST_F(EventCode, PagesTogetherHoldEachCodeOnce)
{
    const std::vector<std::string> all = Select("1");
    std::vector<std::string> paged;
    for (std::size_t offset = 0; offset < all.size(); offset += 5) {
        const std::vector<std::string> page =
            AskList("GetEventCodeEx?Limit=5&Offset=" + std::to_string(offset));
        paged.insert(paged.end(), page.begin() + 1, page.end());
    }
    EXPECT_THAT(paged, UnorderedElementsAreArray(all));
}

TEST_F(EventCode, ListKeepsDatabaseOrder)
{
    panel_.DropKeys("EventCode");
    panel_.Run("INSERT INTO EventCode VALUES (3, 'Bell'), (1, 'Call'), (2, 'Alarm bell')");
    EXPECT_EQ(AskList("GetEventCodeEx?"),
              ListAnswer("GetEventCodeEx", 3, 0,
                         {"Code=3&Desc=Bell", "Code=1&Desc=Call", "Code=2&Desc=Alarm bell"}));
    EXPECT_EQ(AskList("GetEventCodeEx?Desc=bell"),
              ListAnswer("GetEventCodeEx", 2, 0, {"Code=3&Desc=Bell", "Code=2&Desc=Alarm bell"}));
}

TEST_F(EventCode, PageAfterLastCodeFails)
{
    ExpectFails("GetEventCodeEx?Limit=10&Offset=38");
    ExpectFails("GetEventCodeEx?Limit=10&Offset=2147483647");
    ExpectFails("GetEventCodeEx?Code=10101&Limit=10&Offset=1");
}

TEST_F(EventCode, OffsetWithoutLimitFails)
{
    for (const char *keys : {"Offset=10", "Offset=-1", "Offset=1&Limit=0", "Desc=door&Offset=1"})
        ExpectFails(std::string("GetEventCodeEx?") + keys);
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(EventCode, EmptyTableFails)
{
    panel_.Run("DELETE FROM EventCode");
    ExpectFails("GetEventCodeEx?");
    ExpectFails("GetEventCode?Code=10001");
}

// Rights and failures

TEST_F(EventCode, CommandsNeedNoRight)
{
    EXPECT_EQ(client_->Login(panel::kNobody.Id, panel::kNobody.Password), "LoginResponse?Result=0");
    EXPECT_EQ(Ask("GetEventCode?Code=10001"),
              "GetEventCodeResponse?Result=0&Code=10001&Desc=Access granted");
    ExpectRows("", Select("1"));
}

TEST_F(EventCode, EachCommandFailsWhileDatabaseCannotBeOpened)
{
    ExpectNeedsDatabase("GetEventCode?Code=10001");
    ExpectNeedsDatabase("GetEventCodeEx?");
    ExpectRows("", Select("1"));
}

TEST_F(EventCode, CommandsFailWithoutTableAndLogNoDataError)
{
    panel_.Run("ALTER TABLE EventCode RENAME TO Away");
    ExpectFails("GetEventCode?Code=10001");
    ExpectFails("GetEventCodeEx?");
    panel_.Run("ALTER TABLE Away RENAME TO EventCode");
    ExpectRows("", Select("1"));
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(EventCode, CommandsDoNotNeedLogDatabase)
{
    fs::remove(panel_.Paths().LogDatabase);
    EXPECT_EQ(Ask("GetEventCode?Code=10001"),
              "GetEventCodeResponse?Result=0&Code=10001&Desc=Access granted");
    ExpectRows("", Select("1"));
    EXPECT_FALSE(fs::exists(panel_.Paths().LogDatabase));
}

TEST_F(EventCode, ChangeByPanelIsSeenAtOnce)
{
    panel_.Run("UPDATE EventCode SET Name='Renamed' WHERE EventCode=10001");
    EXPECT_EQ(Ask("GetEventCode?Code=10001"),
              "GetEventCodeResponse?Result=0&Code=10001&Desc=Renamed");
    panel_.Run("INSERT INTO EventCode VALUES (30000, 'Added')");
    ExpectRows("", Select("1"));
    ExpectRows("Desc=added", Select("EventCode IN (10301, 10401, 30000)"));
}

} // namespace
} // namespace nimbra::test
