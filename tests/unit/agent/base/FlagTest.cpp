#include "base/Flag.h"

#include <gtest/gtest.h>

#include <thread>

namespace nimbra {
namespace {

TEST(Flag, KeepsInitialStateUntilChanged)
{
    Flag set(true);
    Flag clear(false);
    EXPECT_TRUE(set.IsSet());
    EXPECT_FALSE(clear.IsSet());
    set.Clear();
    clear.Set();
    EXPECT_FALSE(set.IsSet());
    EXPECT_TRUE(clear.IsSet());
}

TEST(Flag, CanBeSetTwiceAndClearedTwice)
{
    Flag flag(false);
    flag.Set();
    flag.Set();
    EXPECT_TRUE(flag.IsSet());
    flag.Clear();
    flag.Clear();
    EXPECT_FALSE(flag.IsSet());
}

TEST(Flag, IsOneByte)
{
    EXPECT_EQ(sizeof(Flag), 1U);
}

TEST(Flag, PublishesWritesMadeBeforeSet)
{
    for (int round = 0; round < 200; ++round) {
        Flag done(false);
        int result = 0;
        std::thread worker([&] {
            result = round + 1;
            done.Set();
        });
        while (!done.IsSet())
            std::this_thread::yield();
        EXPECT_EQ(result, round + 1);
        worker.join();
    }
}

} // namespace
} // namespace nimbra
