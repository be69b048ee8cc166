// Every allocation of memory that a request leads to, failed in turn. Not for a sanitized agent,
// whose allocator is the sanitizer's: its build leaves this file out.

#include "support/CommandTest.h"
#include "support/SweepTest.h"

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

using faults::Point;

struct Sweep
{
    const char *Name;
    const char *Request;
    /// From one allocation that fails to the next one. Each of the last ones fails: they are the
    /// agent's own, when the change has been made.
    std::uint32_t Step = 1;
};

std::ostream &operator<<(std::ostream &out, const Sweep &sweep)
{
    return out << sweep.Name;
}

class Allocation : public SweepTest, public ::testing::WithParamInterface<Sweep>
{
protected:
    static constexpr std::uint32_t kLastCalls = 25;

    Allocation() : SweepTest(GetParam().Request) {}

    /// Sends the request on a panel as it was at first; its answer, rows included.
    std::vector<std::string> AskAnew()
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

TEST_P(Allocation, ThatFailsLeavesARequestDoneOrFailedAndTheNextOneServed)
{
    const std::string command = CommandOf(GetParam().Request);
    const std::vector<std::string> before = Tables();
    faults_.Stop(Point::Allocate);
    const std::vector<std::string> good = AskAnew();
    const std::size_t calls = faults_.Calls(Point::Allocate);
    const std::vector<std::string> after = Tables();
    const std::vector<std::string> journal = panel_.Journal();
    const auto files = panel_.Files();
    const std::size_t memory = agent_.ResidentKiB();
    std::size_t hits = 0;
    std::size_t told = 0;
    std::uint32_t call = 1;
    for (; !HasFailure(); call += call + kLastCalls < calls ? GetParam().Step : 1) {
        SCOPED_TRACE("allocation " + std::to_string(call));
        faults_.Fail(Point::Allocate, ENOMEM, call);
        const std::vector<std::string> answer = AskAnew();
        const bool isHit = faults_.Failed(Point::Allocate) > 0;
        faults_.Stop(Point::Allocate);
        if (!isHit)
            break;
        ++hits;
        ASSERT_FALSE(answer.empty());
        const bool isRefused = answer[0] == command + "Response?Result=1";
        // A list may lack the rows that there was no memory for, never a part of a row.
        if (!isRefused && answer != good) {
            EXPECT_EQ(answer[0].rfind(command + "Response?Result=0&", 0), 0U) << answer[0];
            ASSERT_LE(answer.size(), good.size());
            for (std::size_t row = 1; row < answer.size(); ++row)
                EXPECT_EQ(answer[row], good[row]);
        }
        EXPECT_TRUE(Tables() == (isRefused ? before : after)) << answer[0];
        EXPECT_TRUE(panel_.Files() == files) << answer[0];
        // A change that is not in the journal is told in the log.
        const bool isTold = CountJournalFailures() > told;
        EXPECT_TRUE(isRefused || isTold || panel_.Journal() == journal);
        told = CountJournalFailures();
    }
    EXPECT_GT(hits, 0U);
    EXPECT_EQ(AskAnew(), good);
    EXPECT_TRUE(Tables() == after);
    EXPECT_LT(agent_.ResidentKiB(), memory + 4096);
}

INSTANTIATE_TEST_SUITE_P(
    Memory, Allocation,
    ::testing::Values(Sweep{"OfLogin", "Login?Username=operator&Password=operate!1", 5},
                      Sweep{"OfGet", "GetUserInfo?UserNo=1", 3},
                      Sweep{"OfList", "GetUserInfoEx?Limit=5", 7},
                      Sweep{"OfEvents", "GetEventLogEx?Limit=5", 11},
                      Sweep{"OfAdd", "AddUserInfo?LastName=New", 7},
                      Sweep{"OfAddCard", "AddCardInfo?UserNo=1&FormatNo=1&CardNumber=New", 11},
                      Sweep{"OfThreatLevel", "SetThreatLevel?ThreatLevel=4", 5},
                      // What stands behind the line feed is the picture.
                      Sweep{"OfUpload", "SetUserImage?UserNo=1&FileName=new.jpg&Size=4\nabcd", 3},
                      Sweep{"OfOutput", "SetAuxOutput?Port=1&Control=1"}),
    [](const ::testing::TestParamInfo<Sweep> &sweep) { return std::string(sweep.param.Name); });

/// An allocation that accepting a client takes: of the session, or of its place in the list.
class SessionAllocation : public ::testing::TestWithParam<std::uint32_t>
{
protected:
    Faults faults_;
    TestPanel panel_;
    Agent agent_{faults_.Preloaded()};
};

TEST_P(SessionAllocation, ThatFailsTurnsItsOwnClientAway)
{
    // With the sockets of discovery, which starts last, all that the start takes is there.
    ASSERT_TRUE(WaitUntil([this] { return agent_.Descriptors() == Agent::kDescriptorsAtRest; }));
    faults_.Fail(Point::Allocate, ENOMEM, GetParam());
    ManagementClient refused;
    EXPECT_TRUE(refused.IsClosedByPeer());
    EXPECT_EQ(faults_.Failed(Point::Allocate), 1U);
    ManagementClient next;
    EXPECT_EQ(next.Ask("Hello?").rfind("HelloResponse?Result=0&Key=", 0), 0U);
    EXPECT_TRUE(agent_.WaitForLog("Client Count: 1"));
    EXPECT_EQ(agent_.CountInLog("Client Count"), 1U) << "nothing was added before";
    // A session that has just had a line ends at once.
    agent_.Signal(SIGTERM);
    next.SendLine("Hello?");
}

INSTANTIATE_TEST_SUITE_P(Memory, SessionAllocation, ::testing::Values(1, 2));

} // namespace
} // namespace nimbra::test
