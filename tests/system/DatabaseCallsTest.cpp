// Every call of SQLite, and every disk access of SQLite, that a request causes fails in turn.

#include "support/CommandTest.h"
#include "support/SweepTest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace nimbra::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

using faults::Point;

/// A request, and its Result when the first call at a point fails, when the second call fails, and
/// so on for all calls.
struct Sweep
{
    const char *Name;
    Point At;
    int Error;
    const char *Request;
    const char *Results;
};

std::ostream &operator<<(std::ostream &out, const Sweep &sweep)
{
    return out << sweep.Name;
}

std::string NameOf(const ::testing::TestParamInfo<Sweep> &sweep)
{
    return sweep.param.Name;
}

class DatabaseCallTest : public SweepTest, public ::testing::WithParamInterface<Sweep>
{
protected:
    DatabaseCallTest() : SweepTest(GetParam().Request) {}

    /// Makes each call at the point fail in turn, and passes each answer to `check`.
    template <class Check>
    void FailEachCall(Check check)
    {
        for (std::uint32_t call = 1;; ++call) {
            SCOPED_TRACE("call " + std::to_string(call));
            Restore();
            faults_.Fail(GetParam().At, GetParam().Error, call);
            const std::vector<std::string> answer = Ask();
            const bool isHit = faults_.Failed(GetParam().At) > 0;
            faults_.Stop(GetParam().At);
            if (!isHit)
                return;
            ++hits_;
            check(answer);
            EXPECT_EQ(panel_.Value("PRAGMA integrity_check"), "ok");
            if (HasFailure())
                return;
        }
    }

    std::size_t hits_ = 0;
};

/// Calls of the agent itself: each has its own result.
using DatabaseCall = DatabaseCallTest;

TEST_P(DatabaseCall, FailureGivesResultOfItsCall)
{
    const std::vector<std::string> good = Ask();
    const std::string command = CommandOf(GetParam().Request);
    const std::string results = GetParam().Results;
    std::size_t failures = 0;
    FailEachCall([&](const std::vector<std::string> &answer) {
        ASSERT_LE(hits_, results.size());
        ASSERT_THAT(answer, Not(IsEmpty()));
        const std::string result(1, results[hits_ - 1]);
        EXPECT_EQ(answer[0].substr(0, (command + "Response?Result=0").size()),
                  command + "Response?Result=" + result);
        failures += result == "1" ? 1U : 0U;
        EXPECT_TRUE(
            agent_.WaitForMessage("ClientWorker.cpp", command, command + " fail", failures));
    });
    EXPECT_EQ(hits_, results.size());
    Restore();
    EXPECT_EQ(Ask(), good);
}

constexpr int kError = 1; ///< SQLite's codes
constexpr int kBusy = 5;
constexpr int kNoMemory = 7;
constexpr int kInputOutput = 10;
constexpr int kFull = 13;
constexpr int kCannotOpen = 14;

constexpr char kGet[] = "GetUserInfo?UserNo=1";
constexpr char kList[] = "GetUserInfoEx?Limit=3";
constexpr char kAdd[] = "AddUserInfo?LastName=New";
constexpr char kSet[] = "SetUserInfo?UserNo=1&LastName=New";
constexpr char kDelete[] = "DelUserInfo?UserNo=1";
constexpr char kAddCard[] = "AddCardInfo?UserNo=1&FormatNo=1&CardNumber=New";
constexpr char kThreat[] = "SetThreatLevel?ThreatLevel=4";
constexpr char kEvents[] = "GetEventLogEx?Limit=3";
constexpr char kDoors[] = "GetDoorInfoEx?Limit=3";

INSTANTIATE_TEST_SUITE_P(
    Sqlite, DatabaseCall,
    ::testing::Values(
        Sweep{"OpenDuringGet", Point::OpenDatabase, kCannotOpen, kGet, "1"},
        Sweep{"OpenDuringAdd", Point::OpenDatabase, kCannotOpen, kAdd, "10"},
        Sweep{"OpenDuringDelete", Point::OpenDatabase, kNoMemory, kDelete, "1000"},
        Sweep{"OpenDuringThreat", Point::OpenDatabase, kCannotOpen, kThreat, "1"},
        Sweep{"OpenDuringEvents", Point::OpenDatabase, kCannotOpen, kEvents, "1"},
        Sweep{"OpenDuringDoors", Point::OpenDatabase, kCannotOpen, kDoors, "1000"},
        Sweep{"PrepareDuringGet", Point::PrepareStatement, kError, kGet, "1"},
        Sweep{"PrepareDuringList", Point::PrepareStatement, kError, kList, "01"},
        Sweep{"PrepareDuringDoors", Point::PrepareStatement, kError, kDoors, "01000000"},
        Sweep{"PrepareDuringAdd", Point::PrepareStatement, kError, kAdd, "10"},
        Sweep{"PrepareDuringAddCard", Point::PrepareStatement, kError, kAddCard, "010"},
        Sweep{"PrepareDuringSet", Point::PrepareStatement, kNoMemory, kSet, "0"},
        Sweep{"StepDuringGet", Point::StepStatement, kBusy, kGet, "1"},
        Sweep{"StepDuringList", Point::StepStatement, kInputOutput, kList, "01000"},
        Sweep{"StepDuringAdd", Point::StepStatement, kInputOutput, kAdd, "10"},
        Sweep{"ExecDuringAdd", Point::ExecuteStatement, kFull, kAdd, "10"},
        Sweep{"ExecDuringSet", Point::ExecuteStatement, kBusy, kSet, "10"},
        Sweep{"ExecDuringDelete", Point::ExecuteStatement, kFull, kDelete, "101010"},
        Sweep{"ExecDuringThreat", Point::ExecuteStatement, kInputOutput, kThreat, "1"},
        Sweep{"ExecDuringEvents", Point::ExecuteStatement, kError, kEvents, "1"}),
    NameOf);

/// Lists. Their first statement is the count.
using DatabaseList = DatabaseCallTest;

TEST_P(DatabaseList, FailedCountIsReportedAsTotalZero)
{
    const std::vector<std::string> good = Ask();
    ASSERT_THAT(good, SizeIs(4));
    faults_.Fail(GetParam().At, GetParam().Error);
    EXPECT_EQ(Ask(), ListAnswer(CommandOf(GetParam().Request), 0, 0, {good[1], good[2], good[3]}));
    EXPECT_EQ(faults_.Failed(GetParam().At), 1U);
    EXPECT_EQ(Ask(), good);
}

INSTANTIATE_TEST_SUITE_P(
    Sqlite, DatabaseList,
    ::testing::Values(Sweep{"DoorsPrepare", Point::PrepareStatement, kError, kDoors, ""},
                      Sweep{"UsersPrepare", Point::PrepareStatement, kError, kList, ""},
                      Sweep{"DoorsStep", Point::StepStatement, kInputOutput, kDoors, ""},
                      Sweep{"UsersStep", Point::StepStatement, kInputOutput, kList, ""}),
    NameOf);

/// Disk accesses of SQLite. A change of one statement is either made or not made.
using DiskCall = DatabaseCallTest;

TEST_P(DiskCall, FailureLeavesChangeDoneOrUndone)
{
    const std::string command = CommandOf(GetParam().Request);
    const std::vector<std::string> before = Tables();
    const std::vector<std::string> good = Ask();
    const std::vector<std::string> after = Tables();
    const std::vector<std::string> journal = panel_.Journal();
    std::size_t failures = 0;
    std::size_t missed = 0;
    FailEachCall([&](const std::vector<std::string> &answer) {
        if (answer == good) {
            EXPECT_EQ(Tables(), after);
            // The journal is written after the change, and may be the only part that fails.
            if (panel_.Journal() != journal) {
                EXPECT_THAT(panel_.Journal(), IsEmpty());
                EXPECT_TRUE(agent_.WaitForMessage("DataManager.cpp", "AddDBQueryInfo",
                                                  "sqlite3_exec fail", ++missed));
            }
            return;
        }
        EXPECT_THAT(answer, ElementsAre(command + "Response?Result=1"));
        EXPECT_TRUE(
            agent_.WaitForMessage("ClientWorker.cpp", command, command + " fail", ++failures));
        EXPECT_EQ(Tables(), before);
        EXPECT_THAT(panel_.Journal(), IsEmpty());
    });
    EXPECT_GT(hits_, 0U);
    EXPECT_GT(failures, 0U);
    Restore();
    EXPECT_EQ(Ask(), good);
    EXPECT_EQ(Tables(), after);
}

INSTANTIATE_TEST_SUITE_P(
    Sqlite, DiskCall,
    ::testing::Values(Sweep{"OpenDuringSet", Point::OpenDatabaseFile, EMFILE, kSet, ""},
                      Sweep{"OpenDuringAdd", Point::OpenDatabaseFile, EACCES, kAdd, ""},
                      Sweep{"WriteDuringSet", Point::WriteDatabaseFile, ENOSPC, kSet, ""},
                      Sweep{"WriteDuringAdd", Point::WriteDatabaseFile, EIO, kAdd, ""},
                      Sweep{"WriteDuringAddCard", Point::WriteDatabaseFile, ENOSPC, kAddCard, ""},
                      Sweep{"SyncDuringAdd", Point::SyncDatabaseFile, EIO, kAdd, ""},
                      Sweep{"SyncDuringSet", Point::SyncDatabaseFile, ENOSPC, kSet, ""}),
    NameOf);

} // namespace
} // namespace nimbra::test
