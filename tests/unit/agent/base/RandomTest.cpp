#include "base/Random.h"

#include <climits>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <set>
#include <thread>
#include <vector>

namespace nimbra {
namespace {

/// The first number after seeding. The test must be the only user of the generator.
int FirstDraw(unsigned seed)
{
    std::srand(seed);
    return std::rand();
}

TEST(Random, ReturnsFirstNumberOfSeed)
{
    for (const unsigned seed : {0U, 1U, 2U, 12345U, 2147483647U, 2147483648U, UINT_MAX}) {
        const int expected = FirstDraw(seed);
        EXPECT_EQ(SeedAndDraw(seed), expected) << seed;
        EXPECT_EQ(SeedAndDraw(seed), expected) << seed;
    }
}

TEST(Random, IsNeitherNegativeNorConstant)
{
    static_assert(RAND_MAX == 2147483647);
    std::set<int> drawn;
    for (unsigned seed = 1; seed <= 1000; ++seed) {
        const int number = SeedAndDraw(seed * 1000003U);
        EXPECT_GE(number, 0);
        drawn.insert(number);
    }
    EXPECT_GT(drawn.size(), 900U);
}

TEST(Random, DrawContinuesSequenceOfSeed)
{
    std::srand(42);
    const int first = std::rand();
    const int second = std::rand();
    const int third = std::rand();
    EXPECT_EQ(SeedAndDraw(42), first);
    EXPECT_EQ(Draw(), second);
    EXPECT_EQ(Draw(), third);
}

TEST(Random, SeedAndDrawIsOneStepAcrossThreads)
{
    constexpr unsigned kThreads = 4;
    constexpr int kRounds = 30000;
    std::vector<int> expected;
    expected.reserve(kThreads);
    for (unsigned seed = 0; seed < kThreads; ++seed)
        expected.push_back(FirstDraw(seed + 100));
    std::atomic<int> mismatches = 0;
    std::atomic<unsigned> ready = 0;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (unsigned thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([&mismatches, &ready, &expected, thread] {
            ++ready;
            while (ready < kThreads)
                std::this_thread::yield();
            for (int round = 0; round < kRounds; ++round) {
                if (SeedAndDraw(thread + 100) != expected[thread])
                    ++mismatches;
                if (Draw() < 0)
                    ++mismatches;
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(mismatches, 0);
}

} // namespace
} // namespace nimbra
