#include "cloud/PortRule.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace nimbra {

namespace {

/// A port that a reply names, and what must come of it.
struct Step
{
    std::int32_t LinkPort;
    std::int32_t StunPort;
    bool IsReported;
};

void PlaySteps(const std::vector<Step> &steps)
{
    PortRule rule;
    std::int32_t stunPort = 0;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        EXPECT_EQ(rule.TakeIn(steps[i].LinkPort, &stunPort), steps[i].IsReported) << "step " << i;
        EXPECT_EQ(stunPort, steps[i].StunPort) << "step " << i;
    }
}

TEST(PortRule, ReportsAPortThatTwoRepliesAgreeOnOnce)
{
    PlaySteps({{4000, 0, false}, {4000, 4000, true}, {4000, 4000, false}, {4000, 4000, false}});
}

TEST(PortRule, WithdrawsAReportedPortAsSoonAsItChanges)
{
    PlaySteps({{4000, 0, false},
               {4000, 4000, true},
               {4001, 0, true},
               {4002, 0, false},
               {4002, 4002, true}});
}

TEST(PortRule, NeverReportsAPortThatKeepsChanging)
{
    PlaySteps({{1, 0, false}, {2, 0, false}, {3, 0, false}, {4, 0, false}, {1, 0, false}});
}

TEST(PortRule, TakesZeroAsNoPortAtAll)
{
    PlaySteps({{0, 0, false}, {0, 0, false}, {4000, 0, false}, {4000, 4000, true}});
}

TEST(PortRule, WithdrawsAPortWhenAReplyNamesNone)
{
    PlaySteps({{4000, 0, false}, {4000, 4000, true}, {0, 0, true}, {0, 0, false}});
}

TEST(PortRule, KeepsThePortAfterAReplyWithoutOneAsIfNoneHadComeBefore)
{
    PlaySteps(
        {{4000, 0, false}, {4000, 4000, true}, {0, 0, true}, {4000, 0, false}, {4000, 4000, true}});
}

TEST(PortRule, ReportsAPortAgainAfterItWasWithdrawn)
{
    PlaySteps({{4000, 0, false},
               {4000, 4000, true},
               {4001, 0, true},
               {4000, 0, false},
               {4000, 4000, true}});
}

TEST(PortRule, ReportsAChangeOfTheStunPortMadeElsewhere)
{
    PortRule rule;
    std::int32_t stunPort = 4000;
    // The first reply leaves the port as it is, and what differs from the last report is due.
    EXPECT_TRUE(rule.TakeIn(4000, &stunPort));
    EXPECT_EQ(stunPort, 4000);
    EXPECT_FALSE(rule.TakeIn(4000, &stunPort));
}

} // namespace

} // namespace nimbra
