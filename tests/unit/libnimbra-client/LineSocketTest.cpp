#include "libnimbra-client/LineSocket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include <sys/socket.h>

namespace nimbra {
namespace {

using std::chrono::milliseconds;
using testing::Optional;

Deadline After(milliseconds time)
{
    return SocketClock::now() + time;
}

class LineSocketTest : public testing::Test
{
protected:
    LineSocketTest()
    {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        near_ = LineSocket(Descriptor(ends[0]), [this] { return isCancelled_.load(); });
        far_ = LineSocket(Descriptor(ends[1]));
    }

    /// By then, a thread that has been started waits; if not, a test shows less.
    static constexpr milliseconds kUntilWaiting{100};

    std::atomic<bool> isCancelled_ = false;
    LineSocket near_;
    LineSocket far_;
};

TEST_F(LineSocketTest, ReadsLinesOneByOne)
{
    ASSERT_TRUE(far_.Send("one\n\ntwo\nthr"));
    EXPECT_THAT(near_.ReadLine(), Optional(std::string("one")));
    EXPECT_THAT(near_.ReadLine(), Optional(std::string()));
    EXPECT_THAT(near_.ReadLine(), Optional(std::string("two")));
    EXPECT_EQ(near_.ReadLine(After(milliseconds(20))), std::nullopt);
    EXPECT_EQ(near_.Received(), "thr");
    ASSERT_TRUE(far_.Send("ee\n"));
    EXPECT_THAT(near_.ReadLine(), Optional(std::string("three")));
}

TEST_F(LineSocketTest, ReadsRawBytesAfterLine)
{
    ASSERT_TRUE(far_.Send(std::string("line\n\0\n\xFF", 8)));
    EXPECT_THAT(near_.ReadLine(), Optional(std::string("line")));
    EXPECT_EQ(near_.TakeBytes(2), std::string("\0\n", 2));
    EXPECT_EQ(near_.TakeBytes(10), "\xFF");
    EXPECT_EQ(near_.TakeBytes(10), "");
}

TEST_F(LineSocketTest, TimesOutWhenNothingIsReceived)
{
    const auto begin = SocketClock::now();
    EXPECT_EQ(near_.Receive(begin + milliseconds(50)).Status, IoStatus::TimedOut);
    EXPECT_GE(SocketClock::now() - begin, milliseconds(50));
}

TEST_F(LineSocketTest, TimesOutWhenPeerStopsReading)
{
    const std::string bytes(16'000'000, 'x');
    std::string_view rest = bytes;
    EXPECT_EQ(near_.Send(&rest, After(milliseconds(50))).Status, IoStatus::TimedOut);
    EXPECT_LT(rest.size(), bytes.size());
    EXPECT_FALSE(rest.empty());
}

TEST_F(LineSocketTest, EndsWaitWhenCancelled)
{
    std::thread other([this] {
        std::this_thread::sleep_for(kUntilWaiting);
        isCancelled_ = true;
    });
    EXPECT_EQ(near_.Receive(Deadline::max()).Status, IoStatus::Cancelled);
    other.join();
    std::string_view bytes = "x";
    EXPECT_EQ(near_.Send(&bytes, Deadline::max()).Status, IoStatus::Cancelled);
}

TEST_F(LineSocketTest, InterruptsSendingWhenBytesAreReceived)
{
    ASSERT_TRUE(far_.Send("stop\n"));
    std::string_view bytes = "not sent";
    EXPECT_EQ(near_.Send(&bytes, Deadline::max(), OnReceive::Interrupt).Status,
              IoStatus::Interrupted);
    EXPECT_EQ(bytes, "not sent");
    EXPECT_THAT(near_.ReadLine(), Optional(std::string("stop")));
    EXPECT_TRUE(near_.Send(&bytes, Deadline::max(), OnReceive::Interrupt).IsDone());
    EXPECT_TRUE(bytes.empty());
}

TEST_F(LineSocketTest, SendsAndReceivesAtTheSameTime)
{
    const std::string line(3'000'000, 'a');
    std::thread sender([this, &line] { EXPECT_TRUE(near_.Send(line + "\n")); });
    std::thread echo([this, left = line.size() + 1]() mutable {
        while (left > 0 && far_.Receive(Deadline::max()).IsDone()) {
            const std::string bytes = far_.TakeBytes(left);
            left -= bytes.size();
            EXPECT_TRUE(far_.Send(bytes));
        }
    });
    EXPECT_THAT(near_.ReadLine(), Optional(line));
    sender.join();
    echo.join();
}

TEST_F(LineSocketTest, EndsWhenPeerClosesAndAllBytesAreRead)
{
    ASSERT_TRUE(far_.Send("last\n"));
    far_.Close();
    EXPECT_FALSE(near_.HasEnded());
    EXPECT_TRUE(near_.Receive(Deadline::max()).IsDone());
    EXPECT_EQ(near_.Receive(Deadline::max()).Status, IoStatus::Closed);
    EXPECT_FALSE(near_.HasEnded());
    EXPECT_THAT(near_.TakeLine(), Optional(std::string("last")));
    EXPECT_TRUE(near_.HasEnded());
    EXPECT_FALSE(near_.Send("lost"));
}

TEST_F(LineSocketTest, FailsWithoutSocket)
{
    LineSocket none;
    EXPECT_FALSE(none.IsOpen());
    EXPECT_LT(none.Get(), 0);
    EXPECT_EQ(none.Receive(Deadline::max()).Status, IoStatus::Failed);
    EXPECT_FALSE(none.Send("x"));
}

TEST_F(LineSocketTest, WakesWaitingThreadWhenShutDown)
{
    std::thread reader([this] { EXPECT_EQ(near_.ReadLine(), std::nullopt); });
    std::this_thread::sleep_for(kUntilWaiting);
    near_.Shutdown();
    reader.join();
}

} // namespace
} // namespace nimbra
