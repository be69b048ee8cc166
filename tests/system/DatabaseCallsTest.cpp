// Every single call of SQLite, and of SQLite to the disk, that a request leads to, failed in turn.

#include "support/CommandTest.h"
#include "support/SweepTest.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace nimbra::test {
namespace {

using faults::Point;

/// A request, and the Result that it is answered with when the first call at a point fails, the
/// second, and so on, until there are no more calls.
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

class DatabaseCalls : public SweepTest, public ::testing::WithParamInterface<Sweep>
{
protected:
    DatabaseCalls() : SweepTest(GetParam().Request) {}

    /// Has each call at the point fail in turn, and `check(call)` look at what comes of it.
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

/// Calls of the agent itself: each has its own outcome.
using OwnCalls = DatabaseCalls;

TEST_P(OwnCalls, ThatFailGiveTheResultOfTheirPlace)
{
    const std::vector<std::string> good = Ask();
    const std::string command = CommandOf(GetParam().Request);
    const std::string results = GetParam().Results;
    std::size_t failures = 0;
    FailEachCall([&](const std::vector<std::string> &answer) {
        ASSERT_LE(hits_, results.size());
        ASSERT_FALSE(answer.empty());
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
    Sqlite, OwnCalls,
    ::testing::Values(Sweep{"OpenOfGet", Point::OpenDatabase, kCannotOpen, kGet, "1"},
                      Sweep{"OpenOfAdd", Point::OpenDatabase, kCannotOpen, kAdd, "10"},
                      Sweep{"OpenOfDelete", Point::OpenDatabase, kNoMemory, kDelete, "1000"},
                      Sweep{"OpenOfThreat", Point::OpenDatabase, kCannotOpen, kThreat, "1"},
                      Sweep{"OpenOfEvents", Point::OpenDatabase, kCannotOpen, kEvents, "1"},
                      Sweep{"OpenOfDoors", Point::OpenDatabase, kCannotOpen, kDoors, "1000"},
                      Sweep{"PrepareOfGet", Point::PrepareStatement, kError, kGet, "1"},
                      Sweep{"PrepareOfList", Point::PrepareStatement, kError, kList, "01"},
                      Sweep{"PrepareOfDoors", Point::PrepareStatement, kError, kDoors, "01000000"},
                      Sweep{"PrepareOfAdd", Point::PrepareStatement, kError, kAdd, "10"},
                      Sweep{"PrepareOfAddCard", Point::PrepareStatement, kError, kAddCard, "010"},
                      Sweep{"PrepareOfSet", Point::PrepareStatement, kNoMemory, kSet, "0"},
                      Sweep{"StepOfGet", Point::StepStatement, kBusy, kGet, "1"},
                      Sweep{"StepOfList", Point::StepStatement, kInputOutput, kList, "01000"},
                      Sweep{"StepOfAdd", Point::StepStatement, kInputOutput, kAdd, "10"},
                      Sweep{"ExecOfAdd", Point::ExecuteStatement, kFull, kAdd, "10"},
                      Sweep{"ExecOfSet", Point::ExecuteStatement, kBusy, kSet, "10"},
                      Sweep{"ExecOfDelete", Point::ExecuteStatement, kFull, kDelete, "101010"},
                      Sweep{"ExecOfThreat", Point::ExecuteStatement, kInputOutput, kThreat, "1"},
                      Sweep{"ExecOfEvents", Point::ExecuteStatement, kError, kEvents, "1"}),
    NameOf);

/// Lists, whose first statement is that of their count.
using DatabaseLists = DatabaseCalls;

TEST_P(DatabaseLists, ACountThatFailsIsToldAsTotalZero)
{
    const std::vector<std::string> good = Ask();
    ASSERT_EQ(good.size(), 4U);
    faults_.Fail(GetParam().At, GetParam().Error);
    EXPECT_EQ(Ask(), ListAnswer(CommandOf(GetParam().Request), 0, 0, {good[1], good[2], good[3]}));
    EXPECT_EQ(faults_.Failed(GetParam().At), 1U);
    EXPECT_EQ(Ask(), good);
}

INSTANTIATE_TEST_SUITE_P(
    Sqlite, DatabaseLists,
    ::testing::Values(Sweep{"Doors", Point::PrepareStatement, kError, kDoors, ""},
                      Sweep{"Users", Point::PrepareStatement, kError, kList, ""},
                      Sweep{"DoorsStepped", Point::StepStatement, kInputOutput, kDoors, ""},
                      Sweep{"UsersStepped", Point::StepStatement, kInputOutput, kList, ""}),
    NameOf);

/// Calls of SQLite to the disk: a change of one statement is made or is not made.
using DiskCalls = DatabaseCalls;

TEST_P(DiskCalls, ThatFailLeaveNothingHalfDone)
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
            // The journal is written after the change, and may meet the fault alone.
            if (panel_.Journal() != journal) {
                EXPECT_EQ(panel_.Journal(), std::vector<std::string>());
                EXPECT_TRUE(agent_.WaitForMessage("DataManager.cpp", "AddDBQueryInfo",
                                                  "sqlite3_exec fail", ++missed));
            }
            return;
        }
        EXPECT_EQ(answer, std::vector<std::string>{command + "Response?Result=1"});
        EXPECT_TRUE(
            agent_.WaitForMessage("ClientWorker.cpp", command, command + " fail", ++failures));
        EXPECT_EQ(Tables(), before);
        EXPECT_EQ(panel_.Journal(), std::vector<std::string>());
    });
    EXPECT_GT(hits_, 0U);
    EXPECT_GT(failures, 0U);
    Restore();
    EXPECT_EQ(Ask(), good);
    EXPECT_EQ(Tables(), after);
}

INSTANTIATE_TEST_SUITE_P(
    Sqlite, DiskCalls,
    ::testing::Values(Sweep{"OpenOfSet", Point::OpenDatabaseFile, EMFILE, kSet, ""},
                      Sweep{"OpenOfAdd", Point::OpenDatabaseFile, EACCES, kAdd, ""},
                      Sweep{"WriteOfSet", Point::WriteDatabaseFile, ENOSPC, kSet, ""},
                      Sweep{"WriteOfAdd", Point::WriteDatabaseFile, EIO, kAdd, ""},
                      Sweep{"WriteOfAddCard", Point::WriteDatabaseFile, ENOSPC, kAddCard, ""},
                      Sweep{"SyncOfAdd", Point::SyncDatabaseFile, EIO, kAdd, ""},
                      Sweep{"SyncOfSet", Point::SyncDatabaseFile, ENOSPC, kSet, ""}),
    NameOf);

} // namespace
} // namespace nimbra::test
