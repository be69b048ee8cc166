#include "bench/driver/Client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace nimbra::bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kPatience = std::chrono::seconds(20);

[[noreturn]] void Fail(const char *what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

/// One attempt, given up at once when the server has no room in its queue; -1 then.
int TryToConnect(int port)
{
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (socket < 0)
        Fail("socket");
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        pollfd event{socket, POLLOUT, 0};
        int error = errno;
        socklen_t size = sizeof error;
        if (error != EINPROGRESS || poll(&event, 1, 0) != 1 ||
            getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0) {
            close(socket);
            return -1;
        }
    }
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return socket;
}

} // namespace

Client::Client(int port)
{
    for (const auto end = Clock::now() + kPatience; socket_ < 0; usleep(100)) {
        if (Clock::now() > end)
            throw std::runtime_error("no connection to port " + std::to_string(port));
        socket_ = TryToConnect(port);
    }
}

Client::~Client()
{
    if (socket_ >= 0)
        close(socket_);
}

Client::Client(Client &&other) noexcept
    : socket_(std::exchange(other.socket_, -1)), received_(std::move(other.received_))
{}

Client &Client::operator=(Client &&other) noexcept
{
    std::swap(socket_, other.socket_);
    std::swap(received_, other.received_);
    return *this;
}

void Client::Send(const std::string &text)
{
    if (send(socket_, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size()))
        Fail("send");
}

std::string Client::ReadLine()
{
    std::string nothing;
    std::size_t sent = 0;
    for (;;) {
        const std::size_t end = received_.find('\n');
        if (end != std::string::npos) {
            std::string line = received_.substr(0, end);
            received_.erase(0, end + 1);
            return line;
        }
        Wait(&nothing, &sent);
    }
}

std::string Client::Ask(const std::string &request)
{
    Send(request);
    return ReadLine();
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
    std::size_t sent = 0;
    for (;;) {
        const auto found =
            static_cast<std::size_t>(std::count(received_.begin(), received_.end(), '\n'));
        if (found > lines)
            throw std::runtime_error("more lines than expected");
        lines -= found;
        received_.clear();
        if (lines == 0)
            return;
        Wait(&pending, &sent);
    }
}

void Client::Wait(std::string *pending, std::size_t *sent)
{
    const bool hasMore = *sent < pending->size();
    pollfd event{socket_, static_cast<short>(hasMore ? POLLIN | POLLOUT : POLLIN), 0};
    const auto limit = std::chrono::duration_cast<std::chrono::milliseconds>(kPatience).count();
    if (poll(&event, 1, static_cast<int>(limit)) != 1)
        throw std::runtime_error("the server is silent");
    if (hasMore && (event.revents & POLLOUT) != 0) {
        const ssize_t went = send(socket_, pending->data() + *sent, pending->size() - *sent,
                                  MSG_DONTWAIT | MSG_NOSIGNAL);
        if (went < 0 && errno != EAGAIN)
            Fail("send");
        *sent += static_cast<std::size_t>(std::max<ssize_t>(went, 0));
    }
    if ((event.revents & (POLLIN | POLLERR | POLLHUP)) == 0)
        return;
    std::array<char, 65536> bytes;
    const ssize_t came = recv(socket_, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (came <= 0)
        Fail("recv");
    received_.append(bytes.data(), static_cast<std::size_t>(came));
}

} // namespace nimbra::bench
