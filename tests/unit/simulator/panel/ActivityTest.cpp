#include "simulator/panel/Activity.h"

#include "simulator/panel/SamplePanel.h"
#include "simulator/panel/Sqlite.h"
#include "support/TemporaryDirectory.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

using nimbra::panel::Activity;
using nimbra::panel::PanelPaths;
using nimbra::panel::SqliteFile;
using nimbra::panel::SqliteStatement;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSubsetOf;
using testing::Not;
using testing::SizeIs;

namespace {

using Rows = std::vector<std::vector<std::string>>;

/// A panel in a directory of its own, with an empty log and people who come and go.
class ActivityTest : public testing::Test
{
protected:
    ActivityTest() : paths_(directory_.Path())
    {
        // Only the log and the main database are needed.
        std::filesystem::create_directories(paths_.Databases);
        nimbra::panel::FillMainDatabase(paths_.MainDatabase, {});
        SqliteFile(paths_.LogDatabase)
            .Run("CREATE TABLE Log (No INTEGER PRIMARY KEY, Date INTEGER, Type INTEGER,"
                 " Port INTEGER, DeviceName TEXT, EventCode INTEGER, CardNo INTEGER,"
                 " UserNo INTEGER, UserName TEXT, Res1 INTEGER, Res2 INTEGER)");
    }

    void Change(const std::string &sql) const { SqliteFile(paths_.MainDatabase).Run(sql); }

    /// Lets a number of events happen, and gives these columns of them.
    [[nodiscard]] Rows Events(int count, const std::string &columns, unsigned seed = 1) const
    {
        Activity activity(paths_, seed);
        for (int i = 0; i < count; ++i)
            activity.AppendNext();
        SqliteFile file(paths_.LogDatabase);
        SqliteStatement statement(file, "SELECT " + columns + " FROM Log ORDER BY No");
        Rows rows;
        while (statement.Step())
            rows.push_back(statement.Row());
        return rows;
    }

    nimbra::test::TemporaryDirectory directory_;
    PanelPaths paths_;
};

TEST_F(ActivityTest, AppendsOneEventAtATimeUnderTheNextNumber)
{
    SqliteFile(paths_.LogDatabase).Run("INSERT INTO Log (No, Date) VALUES (41, 0)");
    EXPECT_THAT(Events(2, "No"),
                ElementsAre(ElementsAre("41"), ElementsAre("42"), ElementsAre("43")));
}

TEST_F(ActivityTest, UsesOnlyDoorsCardsAndUsersOfThePanel)
{
    ASSERT_THAT(Events(300, "No"), SizeIs(300));
    SqliteFile log(paths_.LogDatabase);
    log.Run("ATTACH '" + paths_.MainDatabase.string() + "' AS Panel");
    SqliteStatement wrong(
        log, "SELECT * FROM Log WHERE Type <> 2 OR Res1 <> Port OR ABS(Date - strftime('%s', "
             "'now')) > 60"
             " OR NOT EXISTS (SELECT 1 FROM Door WHERE Door.No = Log.Port AND Disable = 0"
             " AND Name = DeviceName)"
             " OR NOT (CardNo = 0 AND UserNo = 0 AND UserName = '' OR EXISTS (SELECT 1 FROM Card"
             " JOIN User ON User.No = Card.UserNo WHERE Card.No = Log.CardNo"
             " AND User.No = Log.UserNo AND FirstName || ' ' || LastName = UserName))");
    EXPECT_FALSE(wrong.Step()) << "event " << wrong.Row().front();
}

TEST_F(ActivityTest, OpensADoorOnlyAfterACardOrTheExitButton)
{
    const std::map<std::string, std::set<std::string>> allowedBefore = {
        {"10101", {"10001", "10105"}}, {"10102", {"10101"}}};
    const Rows events = Events(300, "EventCode, Port, CardNo");
    std::set<std::string> codes;
    for (std::size_t i = 1; i < events.size(); ++i) {
        codes.insert(events[i][0]);
        const auto rule = allowedBefore.find(events[i][0]);
        if (rule != allowedBefore.end()) {
            EXPECT_THAT(rule->second, Contains(events[i - 1][0]));
            EXPECT_EQ(events[i][1], events[i - 1][1]) << "at another door";
        }
        EXPECT_EQ(events[i][2] != "0", events[i][0] == "10001" || events[i][0] == "10004" ||
                                           events[i][0] == "10005" || events[i][0] == "10007");
    }
    EXPECT_THAT(codes, Contains("10001"));
    EXPECT_THAT(codes, Contains("10102"));
    EXPECT_THAT(codes, Contains("10003"));
    EXPECT_THAT(codes, Contains("10105"));
}

TEST_F(ActivityTest, GrantsNoAccessWithExpiredCards)
{
    Change("UPDATE Card SET NeverExpire = 0, ActDate = 0, ExpDate = 86400");
    const Rows events = Events(100, "EventCode");
    ASSERT_THAT(events, SizeIs(100));
    EXPECT_THAT(events, Not(Contains(ElementsAre("10001"))));
    EXPECT_THAT(events, Contains(ElementsAre("10004")));
}

TEST_F(ActivityTest, KnowsNobodyOnAPanelWithoutCards)
{
    Change("DELETE FROM Card");
    const Rows events = Events(100, "EventCode");
    ASSERT_THAT(events, SizeIs(100));
    std::set<std::string> codes;
    for (const auto &event : events)
        codes.insert(event.front());
    EXPECT_THAT(codes, Contains("10003"));
    EXPECT_THAT(codes, IsSubsetOf({"10003", "10101", "10102", "10105"}));
}

TEST_F(ActivityTest, AppendsNothingOnAPanelWithoutDoors)
{
    Change("UPDATE Door SET Disable = 1");
    EXPECT_THAT(Events(10, "No"), IsEmpty());
}

TEST_F(ActivityTest, IsTheSameForTheSameSeed)
{
    const std::string columns = "EventCode, Port, CardNo";
    const Rows first = Events(50, columns);
    SqliteFile(paths_.LogDatabase).Run("DELETE FROM Log");
    const Rows second = Events(50, columns);
    SqliteFile(paths_.LogDatabase).Run("DELETE FROM Log");
    EXPECT_EQ(first, second);
    EXPECT_NE(first, Events(50, columns, 2));
}

} // namespace
