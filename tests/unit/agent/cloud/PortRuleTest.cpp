#include "cloud/PortRule.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace nimbra {
namespace {

/// Whether the port must be reported after a reply.
enum class Outcome
{
    Silent,
    Report,
};
using enum Outcome;

/// The port in a reply of the server, and the expected outcome and port to report.
struct Reply
{
    std::int32_t LinkPort;
    Outcome Expected;
    std::int32_t StunPort;
};

void ExpectOutcomes(const std::vector<Reply> &replies, std::int32_t stunPort = 0)
{
    PortRule rule;
    int number = 0;
    for (const Reply &reply : replies) {
        ++number;
        EXPECT_EQ(rule.TakeIn(reply.LinkPort, &stunPort), reply.Expected == Report) << number;
        EXPECT_EQ(stunPort, reply.StunPort) << number;
    }
}

TEST(PortRule, ReportsPortOnceWhenTwoRepliesAgree)
{
    ExpectOutcomes(
        {{4000, Silent, 0}, {4000, Report, 4000}, {4000, Silent, 4000}, {4000, Silent, 4000}});
}

TEST(PortRule, WithdrawsPortOnceWhenItChanges)
{
    ExpectOutcomes({{4000, Silent, 0},
                    {4000, Report, 4000},
                    {4000, Silent, 4000},
                    {4001, Report, 0},
                    {4002, Silent, 0},
                    {4003, Silent, 0}});
}

TEST(PortRule, ReportsChangedPortWhenTwoRepliesAgree)
{
    ExpectOutcomes(
        {{4000, Silent, 0}, {4000, Report, 4000}, {4001, Report, 0}, {4001, Report, 4001}});
}

TEST(PortRule, ReportsNothingWhilePortKeepsChanging)
{
    ExpectOutcomes({{4000, Silent, 0}, {4001, Silent, 0}, {4000, Silent, 0}, {4001, Silent, 0}});
}

TEST(PortRule, TakesReplyWithoutPortAsChange)
{
    ExpectOutcomes({{4000, Silent, 0}, {4000, Report, 4000}, {0, Report, 0}, {0, Silent, 0}});
}

TEST(PortRule, KeepsPortToReportAfterReplyWithoutPort)
{
    // A previous port of 0 counts as no port, so the port to report stays unchanged.
    ExpectOutcomes({{0, Silent, 0},
                    {4000, Silent, 0},
                    {4000, Report, 4000},
                    {0, Report, 0},
                    {4000, Silent, 0},
                    {4000, Report, 4000}});
}

TEST(PortRule, ReportsPortKnownBeforeFirstReply)
{
    ExpectOutcomes({{4000, Report, 5000}, {4000, Report, 4000}}, 5000);
}

} // namespace
} // namespace nimbra
