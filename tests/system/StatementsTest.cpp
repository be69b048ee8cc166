// The queries of the list commands, as SQLite gets them.

#include "support/Agent.h"
#include "support/CommandTest.h"
#include "support/Faults.h"
#include "support/ManagementClient.h"
#include "support/TestPanel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <ostream>
#include <string>
#include <vector>

namespace nimbra::test {
namespace {

using ::testing::ElementsAreArray;

/// A list command and the statements that it causes, in their order.
struct ListQuery
{
    const char *Request;
    std::vector<std::string> Statements;
};

std::ostream &operator<<(std::ostream &out, const ListQuery &query)
{
    return out << query.Request;
}

std::string NameOf(const ::testing::TestParamInfo<ListQuery> &info)
{
    return CommandOf(info.param.Request);
}

/// Times of requests are those of the panel's time zone.
Agent::Options InUtc(Agent::Options options)
{
    options.Environment.emplace_back("TZ", "UTC");
    return options;
}

class ListStatements : public ::testing::TestWithParam<ListQuery>
{
protected:
    ~ListStatements() override
    {
        agent_.Signal(SIGTERM);
        static_cast<void>(WaitUntil([this] {
            client_.SendLine("Heartbeat?");
            return client_.IsClosedByPeer(milliseconds(20));
        }));
    }

    Faults faults_;
    TestPanel panel_;
    Agent agent_{InUtc(faults_.Preloaded())};
    ManagementClient client_ = LoggedIn();
};

TEST_P(ListStatements, CarryFiltersAndPage)
{
    faults_.ForgetStatements();
    static_cast<void>(client_.AskList(GetParam().Request));
    EXPECT_THAT(faults_.Statements(), ElementsAreArray(GetParam().Statements));
}

INSTANTIATE_TEST_SUITE_P(
    Command, ListStatements,
    ::testing::Values(
        ListQuery{"GetEventLogEx?EventCode=10001&DeviceName=Lobby&Offset=2&Limit=3",
                  {"ATTACH DATABASE '/tmp/NimbraDB/Nimbra.db' as Nimbra",
                   "SELECT A.No, IFNULL(A.Date, 0), IFNULL(A.Type, 0), IFNULL(A.Port, 0), "
                   "IFNULL(A.DeviceName, ''), IFNULL(A.EventCode, 0), IFNULL(B.Name, ''), "
                   "IFNULL(A.CardNo, 0), IFNULL(A.UserNo, 0), IFNULL(A.UserName, ''), "
                   "IFNULL(A.Res1, 0) FROM Log AS A JOIN Nimbra.EventCode AS B ON "
                   "A.EventCode=B.EventCode  WHERE A.DeviceName LIKE '%Lobby%' AND "
                   "A.EventCode=10001 ORDER BY A.No DESC LIMIT 3 OFFSET 2"}},
        ListQuery{"GetEventCodeEx?Code=10001&Desc=door&Offset=2&Limit=3",
                  {"SELECT COUNT(*) FROM EventCode  WHERE EventCode=10001 AND Name LIKE '%door%'",
                   "SELECT EventCode, IFNULL(Name, '') FROM EventCode  WHERE EventCode=10001 AND "
                   "Name LIKE '%door%' LIMIT 3 OFFSET 2"}},
        // No door is left for the query of its lock.
        ListQuery{"GetDoorInfoEx?DoorNo=1&Name=front&Offset=2&Limit=3",
                  {"SELECT COUNT(*) FROM Door  WHERE No=1 AND Name LIKE '%front%' AND Disable=0",
                   "SELECT No, IFNULL(Name, '') FROM Door  WHERE No=1 AND Name LIKE '%front%' AND "
                   "Disable=0 LIMIT 3 OFFSET 2"}},
        ListQuery{
            "GetUserInfoEx?LastName=son&Ada=1&Offset=2&Limit=3",
            {"SELECT COUNT(*) FROM User  WHERE LastName LIKE '%son%' AND Ada=1",
             "SELECT No, IFNULL(FirstName, ''), IFNULL(MiddleName, ''), IFNULL(LastName, ''), "
             "IFNULL(Phone, ''), IFNULL(CellPhone, ''), IFNULL(Email, ''), IFNULL(Ada, 0), "
             "IFNULL(Exempt, 0), IFNULL(ThreatLevel, 0) FROM User  WHERE LastName LIKE "
             "'%son%' AND Ada=1 LIMIT 3 OFFSET 2"}},
        // The command has one filter.
        ListQuery{"GetCardInfoEx?UserNo=1&CardNumber=2&Offset=2&Limit=3",
                  {"SELECT COUNT(*) FROM Card AS A JOIN CardFormat AS B ON A.CardFormatNo = B.No  "
                   "WHERE A.UserNo=1",
                   "SELECT A.No, A.UserNo, IFNULL(A.CardFormatNo, 0), IFNULL(B.Name, ''), "
                   "IFNULL(A.CardNo, ''), IFNULL(A.KeyNumber, 0), IFNULL(A.CardStatus, 0), "
                   "IFNULL(A.CardType, 0), IFNULL(A.NeverExpire, 0), IFNULL(A.ActDate, 0), "
                   "IFNULL(A.ExpDate, 0) FROM Card AS A JOIN CardFormat AS B ON A.CardFormatNo = "
                   "B.No  WHERE A.UserNo=1 LIMIT 3 OFFSET 2"}},
        // These lists have no filters of the database and apply no page.
        ListQuery{"GetCardFormatEx?FormatNo=1&Offset=2&Limit=3",
                  {"SELECT COUNT(*) FROM CardFormat",
                   "SELECT No, IFNULL(Name, ''), IFNULL(IsDefault, 0) FROM CardFormat"}},
        ListQuery{"GetThreatInfoEx?Level=1&Offset=2&Limit=3",
                  {"SELECT COUNT(*) FROM ThreatLevel",
                   "SELECT Level, IFNULL(ThreatName, '') FROM ThreatLevel"}},
        ListQuery{"GetAccessLevelEx?SelectType=0&Offset=2&Limit=3",
                  {"SELECT COUNT(*) FROM AccessLevel",
                   "SELECT No, IFNULL(Name, '') FROM AccessLevel",
                   "SELECT COUNT(*) FROM GroupTable WHERE GroupKind=5",
                   "SELECT No, IFNULL(Name, '') FROM GroupTable WHERE GroupKind=5"}}),
    NameOf);

// Filters have an order of their own, whatever that of the keys.
INSTANTIATE_TEST_SUITE_P(
    AllFilters, ListStatements,
    ::testing::Values(
        ListQuery{
            "GetEventLogEx?VideoTag=12&UserName=Ann&UserNo=10&CardNo=9&EventDesc=open&EventCode=7"
            "&DeviceName=Lobby&DevicePort=5&DeviceType=4&ToTime=1970-01-01 00:00:03"
            "&FromTime=1970-01-01 00:00:02&EventNo=1&Limit=8",
            {"ATTACH DATABASE '/tmp/NimbraDB/Nimbra.db' as Nimbra",
             "SELECT A.No, IFNULL(A.Date, 0), IFNULL(A.Type, 0), IFNULL(A.Port, 0), "
             "IFNULL(A.DeviceName, ''), IFNULL(A.EventCode, 0), IFNULL(B.Name, ''), "
             "IFNULL(A.CardNo, 0), IFNULL(A.UserNo, 0), IFNULL(A.UserName, ''), "
             "IFNULL(A.Res1, 0) FROM Log AS A JOIN Nimbra.EventCode AS B ON "
             "A.EventCode=B.EventCode  WHERE A.No=1 AND A.Date>=2 AND A.Date<=3 AND A.Type=4 "
             "AND A.Port=5 AND A.DeviceName LIKE '%Lobby%' AND A.EventCode=7 AND "
             "B.Name LIKE '%open%' AND A.CardNo=9 AND A.UserNo=10 AND A.UserName LIKE '%Ann%' "
             "AND A.Res1=12 ORDER BY A.No DESC LIMIT 8"}},
        ListQuery{
            "GetUserInfoEx?ThreatLevel=10&Exempt=9&Ada=8&Email=seven&CellPhone=six&PhoneNumber=five"
            "&LastName=four&MiddleName=three&FirstName=two&UserNo=1",
            {"SELECT COUNT(*) FROM User  WHERE No=1 AND FirstName LIKE '%two%' AND "
             "MiddleName LIKE '%three%' AND LastName LIKE '%four%' AND "
             "PhoneNumber LIKE '%five%' AND CellPhone LIKE '%six%' AND Email LIKE '%seven%' AND "
             "Ada=8 AND Exempt=9 AND ThreatLevel=10",
             "SELECT No, IFNULL(FirstName, ''), IFNULL(MiddleName, ''), IFNULL(LastName, ''), "
             "IFNULL(Phone, ''), IFNULL(CellPhone, ''), IFNULL(Email, ''), IFNULL(Ada, 0), "
             "IFNULL(Exempt, 0), IFNULL(ThreatLevel, 0) FROM User  WHERE No=1 AND "
             "FirstName LIKE '%two%' AND MiddleName LIKE '%three%' AND LastName LIKE '%four%' AND "
             "PhoneNumber LIKE '%five%' AND CellPhone LIKE '%six%' AND Email LIKE '%seven%' AND "
             "Ada=8 AND Exempt=9 AND ThreatLevel=10 LIMIT 25"}}),
    NameOf);

} // namespace
} // namespace nimbra::test
