#include "protocol/RowSender.h"

#include "base/Descriptor.h"
#include "base/Wait.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstddef>
#include <string>
#include <thread>

#include <sys/socket.h>

namespace nimbra {
namespace {

using test::Stopwatch;

/// The socket of a session, with a small send buffer, and the connected socket of its client.
class SmallConnection
{
public:
    explicit SmallConnection(int kind = SOCK_STREAM)
    {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, kind | SOCK_CLOEXEC, 0, ends), 0);
        session_ = Descriptor(ends[0]);
        client_ = Descriptor(ends[1]);
        constexpr int kSmallest = 1;
        setsockopt(session_.Get(), SOL_SOCKET, SO_SNDBUF, &kSmallest, sizeof kSmallest);
    }

    [[nodiscard]] int Session() const { return session_.Get(); }

    /// The bytes that one call receives; empty when none have arrived.
    [[nodiscard]] std::string ReceiveOnce() const
    {
        std::string bytes(1U << 20U, '\0');
        const ssize_t count = recv(client_.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
        bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return bytes;
    }
    /// All bytes that have arrived.
    [[nodiscard]] std::string Receive() const
    {
        std::string all;
        for (std::string part = ReceiveOnce(); !part.empty(); part = ReceiveOnce())
            all += part;
        return all;
    }
    /// Fills the send buffer of the socket. Returns the number of bytes.
    [[nodiscard]] std::size_t FillSocket() const
    {
        std::size_t count = 0;
        while (send(session_.Get(), "#", 1, MSG_DONTWAIT) == 1)
            ++count;
        return count;
    }
    void Close() { client_.Close(); }

private:
    Descriptor session_;
    Descriptor client_;
};

std::string Row(int number, std::size_t size = 100)
{
    std::string row = "No=" + std::to_string(number) + "&Name=";
    row.resize(size - 1, static_cast<char>('a' + number % 26));
    return row + "\n";
}

std::string Rows(int begin, int end, std::size_t size = 100)
{
    std::string rows;
    for (int i = begin; i < end; ++i)
        rows += Row(i, size);
    return rows;
}

/// Adds rows and flushes them. Returns false when the sender ended the list early.
bool AddRows(RowSender *sender, int begin, int end, std::size_t size = 100)
{
    for (int i = begin; i < end; ++i)
        if (!sender->Add(Row(i, size)))
            return false;
    return sender->Flush();
}

TEST(RowSender, SendsNothingForEmptyList)
{
    const SmallConnection connection;
    const Flag stop(false);
    RowSender sender(connection.Session(), stop);
    EXPECT_TRUE(sender.Flush());
    EXPECT_TRUE(sender.Flush());
    EXPECT_EQ(connection.Receive(), "");
}

TEST(RowSender, SendsShortListInOneCall)
{
    const SmallConnection connection(SOCK_SEQPACKET);
    const Flag stop(false);
    RowSender sender(connection.Session(), stop);
    for (int i = 0; i < 25; ++i)
        ASSERT_TRUE(sender.Add(Row(i, 60)));
    EXPECT_EQ(connection.ReceiveOnce(), "") << "before the list is complete";
    EXPECT_TRUE(sender.Flush());
    EXPECT_EQ(connection.ReceiveOnce(), Rows(0, 25, 60));
    EXPECT_FALSE(sender.IsGivenUp());
}

TEST(RowSender, SendsLongListCompletelyAndInOrder)
{
    for (const std::size_t size : {11U, 100U, 1023U}) {
        const SmallConnection connection;
        const Flag stop(false);
        std::atomic<bool> isDone = false;
        std::string received;
        std::thread client([&] {
            while (!isDone)
                received += connection.Receive();
            received += connection.Receive();
        });
        RowSender sender(connection.Session(), stop);
        EXPECT_TRUE(AddRows(&sender, 0, 3000, size));
        isDone = true;
        client.join();
        EXPECT_TRUE(received == Rows(0, 3000, size)) << size;
    }
}

TEST(RowSender, DropsRowThatPeerDoesNotReadWithinItsLimit)
{
    const SmallConnection connection;
    const Flag stop(false);
    const std::size_t filled = connection.FillSocket();
    RowSender sender(connection.Session(), stop);
    const Stopwatch watch;
    std::string received;
    std::thread client([&] {
        // After the limit of the first row and before the limit of the second.
        std::this_thread::sleep_for(test::milliseconds(7000));
        EXPECT_TRUE(test::WaitUntil([&] {
            received += connection.Receive();
            return received.ends_with(Row(2));
        }));
    });
    EXPECT_TRUE(AddRows(&sender, 0, 3));
    EXPECT_GT(watch.Seconds(), 6.9);
    client.join();
    EXPECT_EQ(received, std::string(filled, '#') + Rows(1, 3));
}

TEST(RowSender, DropsOnlyRestOfPartlySentRow)
{
    constexpr std::size_t kSize = 1023;
    constexpr int kCount = 400;
    const SmallConnection connection;
    const Flag stop(false);
    RowSender sender(connection.Session(), stop);
    std::string received;
    std::thread client([&] {
        std::this_thread::sleep_for(test::milliseconds(7000));
        EXPECT_TRUE(test::WaitUntil([&] {
            received += connection.Receive();
            return received.ends_with(Row(kCount - 1, kSize));
        }));
    });
    EXPECT_TRUE(AddRows(&sender, 0, kCount, kSize));
    client.join();
    // All rows in order, except the rest of one row.
    const std::string whole = Rows(0, kCount, kSize);
    std::size_t same = 0;
    while (same < received.size() && received[same] == whole[same])
        ++same;
    ASSERT_LT(same, received.size()) << "no row was dropped";
    const std::size_t dropped = same / kSize;
    EXPECT_EQ(received.substr(same), whole.substr((dropped + 1) * kSize));
}

TEST(RowSender, DropsEachRowAtOnceWhenSocketHasFailed)
{
    std::signal(SIGPIPE, SIG_IGN);
    SmallConnection connection;
    connection.Close();
    const Flag stop(false);
    RowSender sender(connection.Session(), stop);
    const Stopwatch watch;
    EXPECT_TRUE(AddRows(&sender, 0, 5000));
    EXPECT_LT(watch.Seconds(), 3.0);
    EXPECT_FALSE(sender.IsGivenUp());
}

TEST(RowSender, EndsAfterCurrentRowWhenStopped)
{
    const SmallConnection connection;
    Flag stop(false);
    const std::size_t filled = connection.FillSocket();
    RowSender sender(connection.Session(), stop);
    std::string received;
    std::atomic<bool> isDone = false;
    std::thread client([&] {
        std::this_thread::sleep_for(test::milliseconds(200));
        stop.Set();
        for (; !isDone; std::this_thread::sleep_for(test::milliseconds(1)))
            received += connection.Receive();
    });
    const Stopwatch watch;
    EXPECT_FALSE(AddRows(&sender, 0, 100000));
    EXPECT_LT(watch.Seconds(), 4.0);
    isDone = true;
    client.join();
    received += connection.Receive();
    // Rows that were passed to the socket together with the first one are sent too.
    const std::string rows = received.substr(filled);
    EXPECT_EQ(rows, Rows(0, 1000).substr(0, rows.size()));
    EXPECT_THAT(rows, testing::EndsWith("\n"));
    EXPECT_LT(rows.size(), 32U * 1024);
    EXPECT_FALSE(sender.IsGivenUp());
}

TEST(RowSender, EndsAfterLimitOfCurrentRowWhenStoppedAndPeerDoesNotRead)
{
    // The limit is five begins of a second. A busy machine may delay one measurement.
    const auto isRight = [](double seconds) { return seconds > 4.5 && seconds < 5.95; };
    double seconds = 0;
    for (int i = 0; i < 3 && !isRight(seconds); ++i) {
        const SmallConnection connection;
        const Flag stop(true);
        const std::size_t filled = connection.FillSocket();
        RowSender sender(connection.Session(), stop);
        WaitForNextSecond();
        const Stopwatch watch;
        EXPECT_FALSE(AddRows(&sender, 0, 100));
        seconds = watch.Seconds();
        EXPECT_EQ(connection.Receive(), std::string(filled, '#'));
    }
    EXPECT_PRED1(isRight, seconds);
}

} // namespace
} // namespace nimbra
