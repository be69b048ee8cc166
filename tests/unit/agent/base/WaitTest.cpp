#include "base/Wait.h"

#include "support/Waiting.h"

#include <gtest/gtest.h>

namespace nimbra {
namespace {

TEST(Wait, PausesForAMillisecond)
{
    const test::Stopwatch watch;
    for (int i = 0; i < 20; ++i)
        PauseMillisecond();
    EXPECT_GE(watch.Seconds(), 0.020);
    EXPECT_LT(watch.Seconds(), 10.0);
}

TEST(Wait, PausesForWholeSeconds)
{
    const test::Stopwatch watch;
    PauseSeconds(1);
    EXPECT_GE(watch.Seconds(), 1.0);
    EXPECT_LT(watch.Seconds(), 10.0);
}

} // namespace
} // namespace nimbra
