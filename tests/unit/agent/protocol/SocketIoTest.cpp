#include "protocol/SocketIo.h"

#include "base/Descriptor.h"
#include "base/Wait.h"
#include "protocol/Line.h"
#include "support/Waiting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace nimbra {
namespace {

/// A text that contains zero bytes.
template <std::size_t N>
std::string_view Bytes(const char (&text)[N])
{
    return {text, N - 1};
}

/// How a session is connected to its client.
enum class Kind
{
    Local,
    Tcp,
};

Descriptor Listen(sockaddr_in *address)
{
    Descriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    address->sin_family = AF_INET;
    address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof *address;
    EXPECT_EQ(bind(listener.Get(), reinterpret_cast<sockaddr *>(address), size), 0);
    EXPECT_EQ(listen(listener.Get(), 1), 0);
    EXPECT_EQ(getsockname(listener.Get(), reinterpret_cast<sockaddr *>(address), &size), 0);
    return listener;
}

/// The blocking socket of a session and the connected socket of its client.
class Connection
{
public:
    explicit Connection(Kind kind = Kind::Tcp)
    {
        if (kind == Kind::Local) {
            int ends[2];
            EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
            session_ = Descriptor(ends[0]);
            client_ = Descriptor(ends[1]);
            return;
        }
        sockaddr_in address = {};
        const Descriptor listener = Listen(&address);
        client_ = Descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(
            connect(client_.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address),
            0);
        session_ = Descriptor(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    }

    [[nodiscard]] int Session() const { return session_.Get(); }

    // The actions of the client.

    void Send(std::string_view bytes) const
    {
        while (!bytes.empty()) {
            const ssize_t count = send(client_.Get(), bytes.data(), bytes.size(), 0);
            ASSERT_GT(count, 0);
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
    }
    [[nodiscard]] std::string Receive(std::size_t count) const
    {
        std::string bytes(count, '\0');
        const ssize_t result = recv(client_.Get(), bytes.data(), count, MSG_WAITALL);
        bytes.resize(result > 0 ? static_cast<std::size_t>(result) : 0);
        return bytes;
    }
    void Close() { client_.Close(); }
    void EndSending() const { shutdown(client_.Get(), SHUT_WR); }
    void Reset()
    {
        const linger atOnce = {1, 0};
        setsockopt(client_.Get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        Close();
    }
    /// Closes the session's socket. Returns all bytes that it sent and the client has not read.
    [[nodiscard]] std::string Drain()
    {
        session_.Close();
        std::string bytes;
        for (;;) {
            const std::string part = Receive(1U << 16U);
            bytes += part;
            if (part.size() < 1U << 16U)
                return bytes;
        }
    }

private:
    Descriptor session_;
    Descriptor client_;
};

/// The processor time of the calling thread.
double ThreadSeconds()
{
    timespec used = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

/// Measures a call. It is constructed right before the call, on the same thread.
class Watch
{
public:
    /// The call took the whole limit of 5 seconds, by a clock of whole seconds, and no longer. The
    /// thread slept during the call, except to transfer some megabytes.
    void ExpectWholeLimit() const
    {
        EXPECT_LT(ThreadSeconds() - processorBegin_, 0.25);
        EXPECT_GE(ClockSecond() - begin_, 5);
        EXPECT_GE(watch_.Seconds(), 3.9);
        EXPECT_LT(watch_.Seconds(), 8.0);
    }
    /// The call did not wait for the limit.
    void ExpectAtOnce() const { EXPECT_LT(watch_.Seconds(), 3.0); }

private:
    double processorBegin_ = ThreadSeconds();
    std::time_t begin_ = ClockSecond();
    test::Stopwatch watch_;
};

/// Sends single bytes for longer than the limit. If each byte had a limit of its own, the transfer
/// would not time out.
void SendSlowly(const Connection &connection)
{
    const test::Stopwatch sending;
    while (sending.Seconds() < 7) {
        connection.Send("x");
        std::this_thread::sleep_for(test::milliseconds(100));
    }
}

/// A client that reads slowly, for longer than the limit.
class SlowReader
{
public:
    explicit SlowReader(const Connection &connection)
        : connection_(connection), thread_(&SlowReader::Run, this)
    {}
    ~SlowReader() { static_cast<void>(Join()); }
    SlowReader(const SlowReader &) = delete;
    SlowReader &operator=(const SlowReader &) = delete;

    /// Ends the session's sending, so that the client stops waiting. Returns what the client read.
    [[nodiscard]] std::string Join()
    {
        shutdown(connection_.Session(), SHUT_WR);
        if (thread_.joinable())
            thread_.join();
        return bytes_;
    }

private:
    void Run()
    {
        const test::Stopwatch reading;
        while (reading.Seconds() < 7) {
            // Enough for a full socket to become writable again.
            bytes_ += connection_.Receive(std::size_t{64} * 1024);
            std::this_thread::sleep_for(test::milliseconds(100));
        }
    }

    const Connection &connection_;
    std::string bytes_;
    std::thread thread_;
};

/// The line that the session receives next; "(none)" when it fails.
std::string ReceiveLine(const Connection &connection, std::size_t size = kLineSize)
{
    // A vector of exactly this size, so that a write beyond it is detected.
    std::vector<char> line(size);
    return RecvMessage(connection.Session(), line.data(), size) ? line.data() : "(none)";
}

std::string RandomBytes(std::size_t count)
{
    std::mt19937_64 random(4711);
    std::string bytes(count, '\0');
    for (std::size_t i = 0; i < count; i += sizeof(std::uint64_t)) {
        const std::uint64_t next = random();
        std::memcpy(bytes.data() + i, &next, std::min(sizeof next, count - i));
    }
    return bytes;
}

class SocketIo : public ::testing::TestWithParam<Kind>
{
protected:
    static void SetUpTestSuite() { std::signal(SIGPIPE, SIG_IGN); }
};

TEST_P(SocketIo, ReceivesLineWithoutItsLineFeed)
{
    const Connection connection(GetParam());
    connection.Send("Hello?\n");
    EXPECT_EQ(ReceiveLine(connection), "Hello?");
}

TEST_P(SocketIo, ReceivesEmptyLine)
{
    const Connection connection(GetParam());
    connection.Send("\n\nx\n");
    EXPECT_EQ(ReceiveLine(connection), "");
    EXPECT_EQ(ReceiveLine(connection), "");
    EXPECT_EQ(ReceiveLine(connection), "x");
}

TEST_P(SocketIo, KeepsEveryByteExceptLineFeed)
{
    const Connection connection(GetParam());
    connection.Send(Bytes("a\0b\r\xff\n"));
    char line[16];
    std::memset(line, 'x', sizeof line);
    ASSERT_TRUE(RecvMessage(connection.Session(), line, sizeof line));
    EXPECT_EQ(std::string_view(line, 7), Bytes("a\0b\r\xff\0x"));
}

TEST_P(SocketIo, ReadsNoByteOfNextLine)
{
    const Connection connection(GetParam());
    connection.Send("Hello?\nLogin?Username=a&Password=b\nraw");
    EXPECT_EQ(ReceiveLine(connection), "Hello?");
    char rest[64];
    const ssize_t count = recv(connection.Session(), rest, sizeof rest, MSG_PEEK | MSG_DONTWAIT);
    ASSERT_GT(count, 0);
    EXPECT_EQ(std::string_view(rest, static_cast<std::size_t>(count)),
              "Login?Username=a&Password=b\nraw");
    EXPECT_EQ(ReceiveLine(connection), "Login?Username=a&Password=b");
}

TEST_P(SocketIo, ReceivesLineSentByteByByte)
{
    const Connection connection(GetParam());
    std::thread client([&] {
        for (const char byte : Bytes("GetDoorInfo?DoorNo=1\n")) {
            connection.Send({&byte, 1});
            std::this_thread::sleep_for(test::milliseconds(2));
        }
    });
    EXPECT_EQ(ReceiveLine(connection), "GetDoorInfo?DoorNo=1");
    client.join();
}

TEST_P(SocketIo, AcceptsLineOf1023Bytes)
{
    const Connection connection(GetParam());
    connection.Send(std::string(1023, 'x') + "\nnext\n");
    EXPECT_EQ(ReceiveLine(connection), std::string(1023, 'x'));
    EXPECT_EQ(ReceiveLine(connection), "next");
}

TEST_P(SocketIo, RefusesLineOf1024BytesAndReadsItsRestAsNextLine)
{
    const Connection connection(GetParam());
    const Watch watch;
    connection.Send(std::string(1024, 'x') + "\nnext\n");
    EXPECT_EQ(ReceiveLine(connection), "(none)");
    EXPECT_EQ(ReceiveLine(connection), "");
    EXPECT_EQ(ReceiveLine(connection), "next");
    watch.ExpectAtOnce();
}

TEST_P(SocketIo, ReadsRestOfLongLineAsNextLine)
{
    const Connection connection(GetParam());
    connection.Send(std::string(1024, 'x') + std::string(1024, 'y') + "tail\nnext\n");
    EXPECT_EQ(ReceiveLine(connection), "(none)");
    EXPECT_EQ(ReceiveLine(connection), "(none)");
    EXPECT_EQ(ReceiveLine(connection), "tail");
    EXPECT_EQ(ReceiveLine(connection), "next");
}

TEST_P(SocketIo, AcceptsLineUpToSizeOfBuffer)
{
    const Connection connection(GetParam());
    connection.Send("abc\nabcd\n\n");
    EXPECT_EQ(ReceiveLine(connection, 4), "abc");
    EXPECT_EQ(ReceiveLine(connection, 4), "(none)");
    EXPECT_EQ(ReceiveLine(connection, 1), "");
    EXPECT_EQ(ReceiveLine(connection, 1), "");
}

TEST_P(SocketIo, ReadsNothingWhenBufferSizeIsZero)
{
    const Connection connection(GetParam());
    connection.Send("a\n");
    char none = 'x';
    EXPECT_FALSE(RecvMessage(connection.Session(), &none, 0));
    EXPECT_EQ(none, 'x');
    EXPECT_EQ(ReceiveLine(connection), "a");
}

TEST_P(SocketIo, ReceivesLinesSentBeforePeerClosed)
{
    Connection connection(GetParam());
    connection.Send("first\nsecond\n");
    connection.Close();
    EXPECT_EQ(ReceiveLine(connection), "first");
    EXPECT_EQ(ReceiveLine(connection), "second");
}

TEST_P(SocketIo, SendsText)
{
    const Connection connection(GetParam());
    EXPECT_TRUE(SendMessage(connection.Session(), "HelloResponse?Result=0&Key=1\n"));
    EXPECT_TRUE(SendMessage(connection.Session(), "\n"));
    EXPECT_EQ(connection.Receive(30), "HelloResponse?Result=0&Key=1\n\n");
}

TEST_P(SocketIo, SendsTextUpToItsTerminator)
{
    Connection connection(GetParam());
    EXPECT_TRUE(SendMessage(connection.Session(), "ab\0cd"));
    EXPECT_EQ(connection.Drain(), "ab");
}

TEST_P(SocketIo, SendsTextLargerThanSocketBufferToReadingPeer)
{
    const Connection connection(GetParam());
    const std::string text(std::size_t{8} << 20U, 't');
    bool isSent = false;
    std::thread session([&] { isSent = SendMessage(connection.Session(), text.c_str()); });
    EXPECT_EQ(connection.Receive(text.size()), text);
    session.join();
    EXPECT_TRUE(isSent);
}

TEST_P(SocketIo, ReportsWhetherSocketHasFailed)
{
    char line[4];
    bool hasFailed = false;
    EXPECT_FALSE(RecvMessage(-1, line, sizeof line, &hasFailed));
    EXPECT_TRUE(hasFailed);
    const Connection connection(GetParam());
    connection.Send("too long\n");
    EXPECT_FALSE(RecvMessage(connection.Session(), line, sizeof line, &hasFailed));
    EXPECT_FALSE(hasFailed);
}

TEST_P(SocketIo, FailsAtOnceOnInvalidSocket)
{
    char line[16];
    std::vector<char> bytes;
    const Watch watch;
    EXPECT_FALSE(SendMessage(-1, "x"));
    EXPECT_EQ(SendBuffer(-1, "x", 1), 0U);
    EXPECT_FALSE(RecvMessage(-1, line, sizeof line));
    EXPECT_EQ(RecvBuffer(-1, &bytes, 1), 0U);
    EXPECT_TRUE(bytes.empty());
    watch.ExpectAtOnce();
}

TEST_P(SocketIo, SendsRawBytes)
{
    Connection connection(GetParam());
    const std::string bytes = std::string(Bytes("a\0\n\xff\0b")) + RandomBytes(5000);
    EXPECT_EQ(SendBuffer(connection.Session(), bytes.data(), bytes.size()), bytes.size());
    EXPECT_EQ(connection.Drain(), bytes);
}

TEST_P(SocketIo, SendsNothingWhenSizeIsZero)
{
    Connection connection(GetParam());
    EXPECT_EQ(SendBuffer(connection.Session(), "x", 0), 0U);
    EXPECT_EQ(connection.Drain(), "");
}

TEST_P(SocketIo, SendsWholeFileToReadingPeer)
{
    const Connection connection(GetParam());
    const std::string bytes = RandomBytes(std::size_t{4} << 20U);
    std::size_t sent = 0;
    std::thread session(
        [&] { sent = SendBuffer(connection.Session(), bytes.data(), bytes.size()); });
    EXPECT_TRUE(connection.Receive(bytes.size()) == bytes);
    session.join();
    EXPECT_EQ(sent, bytes.size());
}

TEST_P(SocketIo, ReceivesExactlyTheRequestedBytes)
{
    const Connection connection(GetParam());
    connection.Send("12345Hello?\n");
    std::vector<char> bytes = {'o', 'l', 'd', 'e', 'r', ' ', 'o', 'n', 'e', 's'};
    EXPECT_EQ(RecvBuffer(connection.Session(), &bytes, 5), 5U);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "12345");
    EXPECT_EQ(ReceiveLine(connection), "Hello?");
}

TEST_P(SocketIo, ReceivesWholeFile)
{
    const Connection connection(GetParam());
    const std::string sent = RandomBytes((std::size_t{4} << 20U) + 7);
    std::thread client([&] { connection.Send(sent); });
    std::vector<char> bytes;
    EXPECT_EQ(RecvBuffer(connection.Session(), &bytes, sent.size()), sent.size());
    client.join();
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), sent.begin(), sent.end()));
}

TEST_P(SocketIo, ReceivesBytesSentOneByOne)
{
    const Connection connection(GetParam());
    const std::string sent = RandomBytes(100);
    std::thread client([&] {
        for (const char &byte : sent) {
            connection.Send({&byte, 1});
            std::this_thread::sleep_for(test::milliseconds(1));
        }
    });
    std::vector<char> bytes;
    EXPECT_EQ(RecvBuffer(connection.Session(), &bytes, sent.size()), sent.size());
    client.join();
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), sent);
}

TEST_P(SocketIo, ReceivesNothingWhenSizeIsZero)
{
    const Connection connection(GetParam());
    connection.Send("x\n");
    std::vector<char> bytes = {'o', 'l', 'd'};
    EXPECT_EQ(RecvBuffer(connection.Session(), &bytes, 0), 0U);
    EXPECT_TRUE(bytes.empty());
    EXPECT_EQ(ReceiveLine(connection), "x");
}

// Each of the following tests waits for a limit.

TEST_P(SocketIo, TimesOutAfter5SecondsWhenNoLineArrives)
{
    const Connection connection(GetParam());
    const Watch watch;
    EXPECT_EQ(ReceiveLine(connection), "(none)");
    watch.ExpectWholeLimit();
}

TEST_P(SocketIo, TimesOutWithoutDelayAtLimitOf5Seconds)
{
    const Connection connection(GetParam());
    // A busy machine may delay one measurement, so there are up to three.
    double shortest = 100;
    for (int attempt = 0; attempt < 3 && shortest >= 5.8; ++attempt) {
        // At the beginning of a clock second the limit is longest: almost 5 seconds.
        WaitForNextSecond();
        const test::Stopwatch watch;
        EXPECT_EQ(ReceiveLine(connection), "(none)");
        shortest = std::min(shortest, watch.Seconds());
    }
    EXPECT_LT(shortest, 5.8);
}

TEST_P(SocketIo, TimesOutAfter5SecondsWhenPeerHasClosed)
{
    Connection connection(GetParam());
    connection.Close();
    const Watch watch;
    EXPECT_EQ(ReceiveLine(connection), "(none)");
    watch.ExpectWholeLimit();
}

TEST_P(SocketIo, TimesOutAfter5SecondsWhenPeerHasEndedSending)
{
    const Connection connection(GetParam());
    connection.Send("half a line");
    connection.EndSending();
    const Watch watch;
    EXPECT_EQ(ReceiveLine(connection), "(none)");
    watch.ExpectWholeLimit();
    EXPECT_TRUE(SendMessage(connection.Session(), "x"));
    EXPECT_EQ(connection.Receive(1), "x");
}

TEST_P(SocketIo, ReceivesLineAtOnceAfterPause)
{
    const Connection connection(GetParam());
    double least = 100;
    for (int attempt = 0; attempt < 5; ++attempt) {
        test::Stopwatch sinceSent;
        std::thread client([&] {
            std::this_thread::sleep_for(test::milliseconds(300));
            sinceSent = test::Stopwatch();
            connection.Send("Heartbeat?\n");
        });
        EXPECT_EQ(ReceiveLine(connection), "Heartbeat?");
        const test::Stopwatch atEnd;
        client.join();
        least = std::min(least, sinceSent.Seconds() - atEnd.Seconds());
    }
    EXPECT_LT(least, 0.1);
}

TEST_P(SocketIo, ContinuesSendingAsSoonAsSocketIsWritable)
{
    double least = 100;
    for (int attempt = 0; attempt < 5; ++attempt) {
        const Connection connection(GetParam());
        const std::string bytes(std::size_t{8} << 20U, 'b');
        test::Stopwatch sinceRead;
        std::thread client([&] {
            std::this_thread::sleep_for(test::milliseconds(300));
            sinceRead = test::Stopwatch();
            EXPECT_EQ(connection.Receive(bytes.size()).size(), bytes.size());
        });
        EXPECT_EQ(SendBuffer(connection.Session(), bytes.data(), bytes.size()), bytes.size());
        const test::Stopwatch atEnd;
        client.join();
        least = std::min(least, sinceRead.Seconds() - atEnd.Seconds());
    }
    EXPECT_LT(least, 0.3);
}

TEST_P(SocketIo, DropsIncompleteLineAtLimit)
{
    const Connection connection(GetParam());
    connection.Send("GetDoorInfo?Doo");
    const Watch watch;
    EXPECT_EQ(ReceiveLine(connection), "(none)");
    watch.ExpectWholeLimit();
    connection.Send("rNo=1\nnext\n");
    EXPECT_EQ(ReceiveLine(connection), "rNo=1");
    EXPECT_EQ(ReceiveLine(connection), "next");
}

TEST_P(SocketIo, AppliesOneLimitToWholeLineWhenBytesArriveSlowly)
{
    const Connection connection(GetParam());
    const Watch watch;
    std::thread client([&] { SendSlowly(connection); });
    EXPECT_EQ(ReceiveLine(connection), "(none)");
    watch.ExpectWholeLimit();
    client.join();
}

TEST_P(SocketIo, TimesOutSendingEmptyText)
{
    Connection connection(GetParam());
    const Watch watch;
    EXPECT_FALSE(SendMessage(connection.Session(), ""));
    watch.ExpectWholeLimit();
    EXPECT_EQ(connection.Drain(), "");
}

TEST_P(SocketIo, TimesOutAfter5SecondsWhenPeerDoesNotReadText)
{
    const Connection connection(GetParam());
    const std::string text(std::size_t{32} << 20U, 't');
    const Watch watch;
    EXPECT_FALSE(SendMessage(connection.Session(), text.c_str()));
    watch.ExpectWholeLimit();
}

TEST_P(SocketIo, TimesOutAfter5SecondsWhenPeerReadsTextTooSlowly)
{
    const Connection connection(GetParam());
    const std::string text(std::size_t{32} << 20U, 't');
    const Watch watch;
    SlowReader client(connection);
    EXPECT_FALSE(SendMessage(connection.Session(), text.c_str()));
    watch.ExpectWholeLimit();
}

TEST_P(SocketIo, TimesOutAfter5SecondsWhenPeerReadsBytesTooSlowly)
{
    Connection connection(GetParam());
    const std::string bytes = RandomBytes(std::size_t{32} << 20U);
    const Watch watch;
    SlowReader client(connection);
    const std::size_t sent = SendBuffer(connection.Session(), bytes.data(), bytes.size());
    watch.ExpectWholeLimit();
    EXPECT_GT(sent, 0U);
    EXPECT_LT(sent, bytes.size());
    const std::string received = client.Join();
    EXPECT_TRUE(received + connection.Drain() == bytes.substr(0, sent));
}

TEST_P(SocketIo, ReturnsBytesSentUntilLimitWhenPeerDoesNotRead)
{
    Connection connection(GetParam());
    const std::string bytes = RandomBytes(std::size_t{32} << 20U);
    const Watch watch;
    const std::size_t sent = SendBuffer(connection.Session(), bytes.data(), bytes.size());
    watch.ExpectWholeLimit();
    EXPECT_GT(sent, 0U);
    EXPECT_LT(sent, bytes.size());
    EXPECT_TRUE(connection.Drain() == bytes.substr(0, sent));
}

TEST_P(SocketIo, ReturnsBytesReceivedUntilLimitWhenPeerStopsSending)
{
    const Connection connection(GetParam());
    connection.Send("12345");
    std::vector<char> bytes;
    const Watch watch;
    EXPECT_EQ(RecvBuffer(connection.Session(), &bytes, 6), 5U);
    watch.ExpectWholeLimit();
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "12345");
}

TEST_P(SocketIo, AppliesOneLimitToWholeTransferWhenBytesArriveSlowly)
{
    const Connection connection(GetParam());
    const Watch watch;
    std::thread client([&] { SendSlowly(connection); });
    std::vector<char> bytes;
    const std::size_t received = RecvBuffer(connection.Session(), &bytes, 1000);
    watch.ExpectWholeLimit();
    EXPECT_GT(received, 0U);
    EXPECT_LT(received, 1000U);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), std::string(received, 'x'));
    client.join();
}

TEST_P(SocketIo, ReturnsBytesReceivedUntilLimitWhenPeerHasClosed)
{
    Connection connection(GetParam());
    connection.Send("12345");
    connection.Close();
    std::vector<char> bytes;
    const Watch watch;
    EXPECT_EQ(RecvBuffer(connection.Session(), &bytes, 100), 5U);
    watch.ExpectWholeLimit();
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "12345");
}

TEST_P(SocketIo, AllocatesMemoryOnlyForReceivedBytes)
{
    const Connection connection(GetParam());
    const std::string sent = RandomBytes(100000);
    std::thread client([&] { connection.Send(sent); });
    std::vector<char> bytes;
    const Watch watch;
    EXPECT_EQ(RecvBuffer(connection.Session(), &bytes, std::size_t{1} << 30U), sent.size());
    watch.ExpectWholeLimit();
    client.join();
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), sent);
    EXPECT_LT(bytes.capacity(), std::size_t{1} << 20U);
}

std::string NameOf(const ::testing::TestParamInfo<Kind> &kind)
{
    return kind.param == Kind::Local ? "Local" : "Tcp";
}

INSTANTIATE_TEST_SUITE_P(, SocketIo, ::testing::Values(Kind::Local, Kind::Tcp), NameOf);

// The causes that end a transfer at once differ between the kinds of sockets.

class SocketIoError : public SocketIo
{};

TEST_F(SocketIoError, SendFailsAtOnceWhenPeerHasClosed)
{
    Connection connection(Kind::Local);
    connection.Close();
    const Watch watch;
    EXPECT_FALSE(SendMessage(connection.Session(), "HeartbeatResponse?Result=0\n"));
    EXPECT_EQ(SendBuffer(connection.Session(), "xyz", 3), 0U);
    watch.ExpectAtOnce();
}

TEST_F(SocketIoError, SendFailsAtOnceWhenPeerHasReset)
{
    Connection connection(Kind::Tcp);
    connection.Reset();
    const Watch watch;
    EXPECT_FALSE(SendMessage(connection.Session(), "HeartbeatResponse?Result=0\n"));
    EXPECT_FALSE(SendMessage(connection.Session(), "HeartbeatResponse?Result=0\n"));
    watch.ExpectAtOnce();
}

TEST_F(SocketIoError, SendEndsAtOnceWhenPeerClosesDuringTransfer)
{
    Connection connection(Kind::Tcp);
    const std::string bytes(std::size_t{32} << 20U, 'b');
    std::size_t sent = 0;
    const Watch watch;
    std::thread session(
        [&] { sent = SendBuffer(connection.Session(), bytes.data(), bytes.size()); });
    EXPECT_EQ(connection.Receive(1000), std::string(1000, 'b'));
    connection.Close();
    session.join();
    watch.ExpectAtOnce();
    EXPECT_GE(sent, 1000U);
    EXPECT_LT(sent, bytes.size());
}

TEST_F(SocketIoError, ReceiveFailsAtOnceWhenPeerHasReset)
{
    Connection connection(Kind::Tcp);
    connection.Reset();
    const Watch watch;
    EXPECT_EQ(ReceiveLine(connection), "(none)");
    watch.ExpectAtOnce();
}

TEST_F(SocketIoError, ReceiveReturnsBytesSentBeforeReset)
{
    Connection connection(Kind::Local);
    connection.Send("12345");
    // Closing with something unread resets a local connection.
    ASSERT_EQ(send(connection.Session(), "unread", 6, 0), 6);
    connection.Close();
    std::vector<char> bytes;
    const Watch watch;
    EXPECT_EQ(RecvBuffer(connection.Session(), &bytes, 100), 5U);
    watch.ExpectAtOnce();
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "12345");
}

} // namespace
} // namespace nimbra
