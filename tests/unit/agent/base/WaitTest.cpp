#include "base/Wait.h"

#include "base/Descriptor.h"
#include "support/Waiting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <functional>
#include <string>
#include <thread>

#include <sys/socket.h>

namespace nimbra {
namespace {

using test::milliseconds;
using test::Stopwatch;

/// Two connected sockets.
struct SocketPair
{
    SocketPair()
    {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
        Own = Descriptor(ends[0]);
        Peer = Descriptor(ends[1]);
    }
    /// Fills the send buffer of the socket.
    void Fill() const
    {
        const std::string bytes(4096, 'x');
        while (send(Own.Get(), bytes.data(), bytes.size(), 0) > 0) {
        }
    }
    void Drain() const
    {
        char bytes[4096];
        while (recv(Peer.Get(), bytes, sizeof bytes, 0) > 0) {
        }
    }

    Descriptor Own;
    Descriptor Peer;
};

/// The part of the current clock second that has passed, in seconds.
double SecondsIntoSecond()
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_nsec) / 1e9;
}

/// The least of several measurements, because a busy machine may delay some of them.
double Least(const std::function<double()> &measure)
{
    double least = measure();
    for (int i = 0; i < 4; ++i)
        least = std::min(least, measure());
    return least;
}

/// Starts a wait 50 ms before `event`. Returns the time from the event to the end of the wait.
double Delay(bool (*wait)(int socket), int socket, const std::function<void()> &event)
{
    while (SecondsIntoSecond() > 0.5)
        WaitForNextSecond();
    Stopwatch sinceEvent;
    std::thread other([&] {
        std::this_thread::sleep_for(milliseconds(50));
        sinceEvent = Stopwatch();
        event();
    });
    const bool isReady = wait(socket);
    const Stopwatch atEnd;
    other.join();
    // On a very busy machine the second may end before the event.
    return isReady ? sinceEvent.Seconds() - atEnd.Seconds() : 1;
}

TEST(ClockSecond, ReturnsSystemTime)
{
    const std::time_t before = std::time(nullptr);
    const std::time_t now = ClockSecond();
    EXPECT_GE(now, before);
    // time() is late by up to one tick of the kernel.
    std::this_thread::sleep_for(milliseconds(20));
    EXPECT_LE(now, std::time(nullptr));
}

TEST(WaitForNextSecond, ReturnsWhenNextSecondBegins)
{
    EXPECT_LT(Least([] {
                  const std::time_t before = ClockSecond();
                  WaitForNextSecond();
                  EXPECT_GT(ClockSecond(), before);
                  return SecondsIntoSecond();
              }),
              0.1);
}

TEST(WaitForInput, ReturnsWhenBytesArrive)
{
    EXPECT_LT(Least([] {
                  const SocketPair sockets;
                  return Delay(WaitForInput, sockets.Own.Get(),
                               [&] { EXPECT_EQ(send(sockets.Peer.Get(), "x", 1, 0), 1); });
              }),
              0.1);
}

TEST(WaitForInput, ReturnsAtOnceWhenBytesHaveArrived)
{
    const SocketPair sockets;
    ASSERT_EQ(send(sockets.Peer.Get(), "x", 1, 0), 1);
    EXPECT_TRUE(WaitForInput(sockets.Own.Get()));
}

TEST(WaitForInput, ReturnsAtOnceWhenPeerHasClosed)
{
    SocketPair sockets;
    sockets.Peer.Close();
    EXPECT_TRUE(WaitForInput(sockets.Own.Get()));
}

TEST(WaitForInput, ReturnsAtNextSecondWhenNothingArrives)
{
    const SocketPair sockets;
    EXPECT_LT(Least([&] {
                  const std::time_t before = ClockSecond();
                  EXPECT_FALSE(WaitForInput(sockets.Own.Get()));
                  EXPECT_GT(ClockSecond(), before);
                  return SecondsIntoSecond();
              }),
              0.1);
}

TEST(WaitForOutput, ReturnsAtOnceWhenSocketIsWritable)
{
    const SocketPair sockets;
    EXPECT_TRUE(WaitForOutput(sockets.Own.Get()));
}

TEST(WaitForOutput, ReturnsWhenFullSocketBecomesWritable)
{
    EXPECT_LT(Least([] {
                  const SocketPair sockets;
                  sockets.Fill();
                  return Delay(WaitForOutput, sockets.Own.Get(), [&] { sockets.Drain(); });
              }),
              0.1);
}

TEST(WaitForOutput, ReturnsAtNextSecondWhileSocketIsFull)
{
    const SocketPair sockets;
    sockets.Fill();
    const std::time_t before = ClockSecond();
    EXPECT_FALSE(WaitForOutput(sockets.Own.Get()));
    EXPECT_GT(ClockSecond(), before);
}

TEST(PauseSeconds, LastsWholeSeconds)
{
    const Stopwatch watch;
    PauseSeconds(1);
    EXPECT_GE(watch.Seconds(), 1.0);
    EXPECT_LT(watch.Seconds(), 10.0);
}

} // namespace
} // namespace nimbra
