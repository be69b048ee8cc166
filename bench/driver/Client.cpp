#include "bench/driver/Client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace nimbra::bench {

namespace {

constexpr auto kPatience = std::chrono::seconds(20);

Deadline PatienceEnd()
{
    return SocketClock::now() + kPatience;
}

/// Throws for a result that ends the measurement.
void FailOn(const IoResult &result)
{
    if (result.Status == IoStatus::TimedOut)
        throw std::runtime_error("the server is silent");
    if (result.Status == IoStatus::Closed)
        throw std::runtime_error("the server has closed the connection");
    if (result.Status == IoStatus::Failed)
        throw std::system_error(result.Error, std::generic_category(), "connection");
}

/// One attempt; none when it does not succeed at once, for example because the server's queue is
/// full.
Descriptor TryToConnect(int port)
{
    Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket.IsOpen())
        throw std::system_error(errno, std::generic_category(), "socket");
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(socket.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        pollfd event{socket.Get(), POLLOUT, 0};
        int error = errno;
        socklen_t size = sizeof error;
        if (error != EINPROGRESS || poll(&event, 1, 0) != 1 ||
            getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0)
            return Descriptor();
    }
    // From here on calls block, but not for ever.
    const int on = 1;
    const timeval limit = {kPatience.count(), 0};
    fcntl(socket.Get(), F_SETFL, 0);
    setsockopt(socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return socket;
}

} // namespace

Client::Client(int port)
{
    for (const Deadline end = PatienceEnd(); !socket_.IsOpen(); usleep(100)) {
        if (SocketClock::now() > end)
            throw std::runtime_error("no connection to port " + std::to_string(port));
        socket_ = LineSocket(TryToConnect(port));
    }
}

void Client::Send(std::string_view text)
{
    FailOn(socket_.Send(&text, PatienceEnd()));
}

std::string Client::ReadLine()
{
    for (;;) {
        std::optional<std::string> line = socket_.TakeLine();
        if (line)
            return *line;
        Receive();
    }
}

std::string Client::Ask(const std::string &request)
{
    Send(request);
    return ReadLine();
}

void Client::Exchange(std::string_view request, std::size_t size) const
{
    if (send(socket_.Get(), request.data(), request.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(request.size()))
        throw std::system_error(errno, std::generic_category(), "send");
    std::array<char, 256> bytes;
    while (size > 0) {
        const ssize_t count = recv(socket_.Get(), bytes.data(), std::min(size, bytes.size()), 0);
        if (count == 0)
            throw std::runtime_error("the server has closed the connection");
        if (count < 0)
            throw std::system_error(errno, std::generic_category(), "recv");
        size -= static_cast<std::size_t>(count);
    }
}

void Client::LogIn()
{
    if (Ask("Hello?\n").find("Result=0") == std::string::npos ||
        Ask("Login?Username=admin&Password=admin1234\n") != "LoginResponse?Result=0")
        throw std::runtime_error("login refused");
}

std::string Client::AskAll(const std::string &request)
{
    std::string answer = Ask(request) + "\n";
    const std::size_t place = answer.find("&Count=");
    const int rows = place == std::string::npos ? 0 : std::stoi(answer.substr(place + 7));
    for (int row = 0; row < rows; ++row)
        answer += ReadLine() + "\n";
    return answer;
}

void Client::Flood(const std::string &request, int count, std::size_t lines)
{
    std::string pending;
    for (int i = 0; i < count; ++i)
        pending += request;
    std::string_view rest = pending;
    for (;;) {
        const std::string received = socket_.TakeBytes(socket_.Received().size());
        const auto found =
            static_cast<std::size_t>(std::count(received.begin(), received.end(), '\n'));
        if (found > lines)
            throw std::runtime_error("more lines than expected");
        lines -= found;
        if (lines == 0)
            return;
        // Answers are read while requests are sent: otherwise both ends could wait for ever.
        FailOn(socket_.Send(&rest, PatienceEnd(), OnReceive::Interrupt));
        Receive();
    }
}

void Client::Receive()
{
    FailOn(socket_.Receive(PatienceEnd()));
}

} // namespace nimbra::bench
