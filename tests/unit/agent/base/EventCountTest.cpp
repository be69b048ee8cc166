#include "base/EventCount.h"

#include "support/Waiting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <thread>
#include <vector>

namespace nimbra {
namespace {

using test::milliseconds;
using test::Stopwatch;

TEST(EventCount, WaitReturnsAtOnceWhenEventWasMissed)
{
    EventCount events;
    const int seen = events.Get();
    events.Add();
    EXPECT_NE(events.WaitPast(seen), seen);
}

TEST(EventCount, WaitReturnsAtNextEvent)
{
    // A busy machine may delay one measurement.
    double least = 100;
    for (int i = 0; i < 5; ++i) {
        EventCount events;
        const int seen = events.Get();
        Stopwatch sinceEvent;
        std::thread other([&] {
            std::this_thread::sleep_for(milliseconds(50));
            sinceEvent = Stopwatch();
            events.Add();
        });
        EXPECT_NE(events.WaitPast(seen), seen);
        const Stopwatch atEnd;
        other.join();
        least = std::min(least, sinceEvent.Seconds() - atEnd.Seconds());
    }
    EXPECT_LT(least, 0.1);
}

TEST(EventCount, WaitUsesNoProcessorTime)
{
    EventCount events;
    const int seen = events.Get();
    std::thread other([&] {
        std::this_thread::sleep_for(test::seconds(1));
        events.Add();
    });
    timespec before = {};
    timespec after = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before);
    static_cast<void>(events.WaitPast(seen));
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after);
    other.join();
    EXPECT_LT(static_cast<double>(after.tv_sec - before.tv_sec) +
                  static_cast<double>(after.tv_nsec - before.tv_nsec) / 1e9,
              0.05);
}

TEST(EventCount, WakesEveryWaiterWithoutMissingAnEvent)
{
    constexpr int kEvents = 20000;
    EventCount events;
    const int first = events.Get();
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] {
            for (int seen = first; seen != first + kEvents;)
                seen = events.WaitPast(seen);
        });
    for (int i = 0; i < kEvents; ++i)
        events.Add();
    for (std::thread &waiter : waiters)
        waiter.join();
    EXPECT_EQ(events.Get(), first + kEvents);
}

TEST(EventCount, PublishesWritesMadeBeforeEvent)
{
    EventCount events;
    std::vector<int> done;
    std::thread worker([&] {
        done.push_back(7);
        events.Add();
    });
    static_cast<void>(events.WaitPast(0));
    EXPECT_EQ(done, std::vector<int>{7});
    worker.join();
}

} // namespace
} // namespace nimbra
