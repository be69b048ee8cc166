#include "base/SecondTimer.h"

#include <gtest/gtest.h>

namespace nimbra {
namespace {

constexpr std::time_t kNow = 1795254344;

TEST(SecondTimer, CountsSecondsSinceConstruction)
{
    SecondTimer timer(kNow);
    EXPECT_EQ(timer.Elapsed(kNow), 0);
    EXPECT_EQ(timer.Elapsed(kNow + 4), 4);
    EXPECT_EQ(timer.Elapsed(kNow + 3600), 3600);
}

TEST(SecondTimer, RestartsWhenClockIsSetBackBeforeItsStart)
{
    SecondTimer timer(kNow);
    EXPECT_EQ(timer.Elapsed(kNow + 4), 4);
    EXPECT_EQ(timer.Elapsed(kNow - 3600), 0);
    EXPECT_EQ(timer.Elapsed(kNow - 3600 + 5), 5);
}

TEST(SecondTimer, ContinuesWhenClockIsSetBackToAfterItsStart)
{
    SecondTimer timer(kNow);
    EXPECT_EQ(timer.Elapsed(kNow + 9), 9);
    EXPECT_EQ(timer.Elapsed(kNow + 2), 2);
}

TEST(SecondTimer, IsExpiredAtAnyClockTimeWhenMadeExpired)
{
    SecondTimer timer = SecondTimer::Expired();
    EXPECT_GT(timer.Elapsed(0), 3600);
    EXPECT_GT(timer.Elapsed(kNow), 3600);
}

TEST(SecondTimer, UsesSystemClockByDefault)
{
    SecondTimer timer;
    EXPECT_LT(timer.Elapsed(), 60);
    EXPECT_GT(SecondTimer(0).Elapsed(), 1700000000);
}

} // namespace
} // namespace nimbra
