// Every memory allocation that a request causes fails in turn. Sanitized builds leave this file
// out: the sanitizer replaces the allocator.

#include "support/CommandTest.h"
#include "support/Matchers.h"
#include "support/SweepTest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
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
using ::testing::StartsWith;

using faults::Point;

struct Sweep
{
    const char *Name;
    const char *Request;
    /// The distance between two allocations that fail. Each of the last allocations fails: they are
    /// the agent's own, after the change.
    std::uint32_t Step = 1;
};

std::ostream &operator<<(std::ostream &out, const Sweep &sweep)
{
    return out << sweep.Name;
}

class AllocationFailure : public SweepTest, public ::testing::WithParamInterface<Sweep>
{
protected:
    static constexpr std::uint32_t kLastCalls = 25;

    AllocationFailure() : SweepTest(GetParam().Request) {}

    /// Restores the panel and sends the request; returns its answer, rows included.
    std::vector<std::string> AskRestored()
    {
        Restore();
        return Ask();
    }

    [[nodiscard]] std::size_t CountJournalFailures()
    {
        return agent_.CountMessages("DataManager.cpp", "AddDBQueryInfo", "sqlite3_exec fail") +
               agent_.CountMessages("DataManager.cpp", "AddDBQueryInfo", "sqlite3_open fail");
    }
};

TEST_P(AllocationFailure, LeavesRequestDoneOrFailedAndServesNextOne)
{
    const std::string command = CommandOf(GetParam().Request);
    const std::vector<std::string> before = Tables();
    faults_.Stop(Point::Allocate);
    const std::vector<std::string> good = AskRestored();
    const std::size_t calls = faults_.Calls(Point::Allocate);
    const std::vector<std::string> after = Tables();
    const std::vector<std::string> journal = panel_.Journal();
    const auto files = panel_.Files();
    const std::size_t memory = agent_.ResidentKiB();
    std::size_t hits = 0;
    std::size_t logged = 0;
    std::uint32_t call = 1;
    for (; !HasFailure(); call += call + kLastCalls < calls ? GetParam().Step : 1) {
        SCOPED_TRACE("allocation " + std::to_string(call));
        faults_.Fail(Point::Allocate, ENOMEM, call);
        const std::vector<std::string> answer = AskRestored();
        const bool isHit = faults_.Failed(Point::Allocate) > 0;
        faults_.Stop(Point::Allocate);
        if (!isHit)
            break;
        ++hits;
        ASSERT_THAT(answer, Not(IsEmpty()));
        const bool isRefused = answer[0] == command + "Response?Result=1";
        // A list may lack rows for lack of memory, but no row is incomplete.
        if (!isRefused && answer != good) {
            EXPECT_THAT(answer[0], StartsWith(command + "Response?Result=0&"));
            ASSERT_LE(answer.size(), good.size());
            for (std::size_t row = 1; row < answer.size(); ++row)
                EXPECT_EQ(answer[row], good[row]);
        }
        EXPECT_TRUE(Tables() == (isRefused ? before : after)) << answer[0];
        EXPECT_TRUE(panel_.Files() == files) << answer[0];
        // A change that is missing from the journal is logged.
        const bool isLogged = CountJournalFailures() > logged;
        if (isRefused)
            EXPECT_THAT(panel_.Journal(), IsEmpty());
        else
            EXPECT_TRUE(isLogged || panel_.Journal() == journal);
        logged = CountJournalFailures();
    }
    EXPECT_GT(hits, 0U);
    EXPECT_EQ(AskRestored(), good);
    EXPECT_TRUE(Tables() == after);
    EXPECT_LT(agent_.ResidentKiB(), memory + 4096);
}

INSTANTIATE_TEST_SUITE_P(
    Requests, AllocationFailure,
    ::testing::Values(Sweep{"Login", "Login?Username=operator&Password=operate!1", 5},
                      Sweep{"GetUserInfoEx", "GetUserInfoEx?Limit=5", 7},
                      Sweep{"GetEventLogEx", "GetEventLogEx?Limit=5", 11},
                      Sweep{"AddUserInfo", "AddUserInfo?LastName=New", 7},
                      Sweep{"AddCardInfo", "AddCardInfo?UserNo=1&FormatNo=1&CardNumber=New", 11},
                      Sweep{"SetThreatLevel", "SetThreatLevel?ThreatLevel=4", 5},
                      // The bytes after the line feed are the image.
                      Sweep{"SetUserImage", "SetUserImage?UserNo=1&FileName=new.jpg&Size=4\nabcd",
                            3},
                      Sweep{"SetAuxOutput", "SetAuxOutput?Port=1&Control=1"}),
    [](const ::testing::TestParamInfo<Sweep> &sweep) { return std::string(sweep.param.Name); });

class SimpleQuery : public SweepTest
{
protected:
    SimpleQuery() : SweepTest("GetUserInfo?UserNo=1") {}
};

TEST_F(SimpleQuery, AllocatesNothingAfterAnEarlierOne)
{
    faults_.Stop(Point::Allocate);
    EXPECT_THAT(Ask(), ElementsAre(StartsWith("GetUserInfoResponse?Result=0&")));
    EXPECT_EQ(faults_.Calls(Point::Allocate), 0U) << "the memory of the earlier one is kept";
}

/// The allocations of accepting a client: the session (1) and its entry in the list (2).
class SessionAllocationFailure : public ::testing::TestWithParam<std::uint32_t>
{
protected:
    Faults faults_;
    TestPanel panel_;
    Agent agent_{faults_.Preloaded()};
};

TEST_P(SessionAllocationFailure, ClosesConnectionOfItsClientOnly)
{
    // Discovery starts last: when its sockets are open, the start has made all its allocations.
    ASSERT_TRUE(WaitUntil([this] { return agent_.Descriptors() == Agent::kDescriptorsAtRest; }));
    faults_.Fail(Point::Allocate, ENOMEM, GetParam());
    ManagementClient refused;
    EXPECT_TRUE(refused.IsClosedByPeer());
    EXPECT_EQ(faults_.Failed(Point::Allocate), 1U);
    ManagementClient next;
    EXPECT_THAT(next.Ask("Hello?"), IsGreeting());
    EXPECT_TRUE(agent_.WaitForLog("Client Count: 1"));
    EXPECT_EQ(agent_.CountInLog("Client Count"), 1U) << "nothing was added before";
    // A session that has just received a line ends at once.
    agent_.Signal(SIGTERM);
    next.SendLine("Hello?");
}

INSTANTIATE_TEST_SUITE_P(Accept, SessionAllocationFailure, ::testing::Values(1, 2));

} // namespace
} // namespace nimbra::test
