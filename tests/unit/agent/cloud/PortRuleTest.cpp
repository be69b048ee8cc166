#include "cloud/PortRule.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace nimbra {
namespace {

/// One reply of the server and what follows from it.
struct Reply
{
    std::int32_t LinkPort;
    bool IsReported;
    std::int32_t StunPort;
};

void Follow(const std::vector<Reply> &replies, std::int32_t stunPort = 0)
{
    PortRule rule;
    int number = 0;
    for (const Reply &reply : replies) {
        ++number;
        EXPECT_EQ(rule.TakeIn(reply.LinkPort, &stunPort), reply.IsReported) << number;
        EXPECT_EQ(stunPort, reply.StunPort) << number;
    }
}

TEST(PortRule, ReportsAPortThatTwoRepliesAgreeOnOnce)
{
    Follow({{4000, false, 0}, {4000, true, 4000}, {4000, false, 4000}, {4000, false, 4000}});
}

TEST(PortRule, WithdrawsAPortOnceAsSoonAsItChanges)
{
    Follow({{4000, false, 0},
            {4000, true, 4000},
            {4000, false, 4000},
            {4001, true, 0},
            {4002, false, 0},
            {4003, false, 0}});
}

TEST(PortRule, ReportsAChangedPortWhenItIsStable)
{
    Follow({{4000, false, 0}, {4000, true, 4000}, {4001, true, 0}, {4001, true, 4001}});
}

TEST(PortRule, ReportsNothingOfAPortThatNeverStays)
{
    Follow({{4000, false, 0}, {4001, false, 0}, {4000, false, 0}, {4001, false, 0}});
}

TEST(PortRule, TakesAReplyWithoutAPortAsAChange)
{
    Follow({{4000, false, 0}, {4000, true, 4000}, {0, true, 0}, {0, false, 0}});
}

TEST(PortRule, KeepsThePortAfterAReplyWithoutOne)
{
    // A previous port of 0 counts as none, so what is to be reported stays as it is.
    Follow({{0, false, 0},
            {4000, false, 0},
            {4000, true, 4000},
            {0, true, 0},
            {4000, false, 0},
            {4000, true, 4000}});
}

TEST(PortRule, ReportsAPortThatWasKnownBeforeTheFirstReply)
{
    Follow({{4000, true, 5000}, {4000, true, 4000}}, 5000);
}

} // namespace
} // namespace nimbra
