#include "libnimbra-client/Socket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <nimbra-client/Error.h>
#include <unistd.h>

namespace nimbra::client {

namespace {

/// How often a wait asks whether it is cancelled.
constexpr std::chrono::milliseconds kSlice(100);

/// No line of the protocol is nearly as long.
constexpr std::size_t kLongestLine = 8192;

[[noreturn]] void FailBroken(int error)
{
    throw ConnectionError(std::string("The connection to the panel broke: ") +
                          std::strerror(error) + ".");
}

[[noreturn]] void FailClosed()
{
    throw ConnectionError("The panel closed the connection.");
}

/// Finishes a connect that has begun; the error, 0 when it is made.
int FinishConnect(int socket, Deadline deadline, const CancelCheck &isCancelled)
{
    if (!WaitForSocket(socket, POLLOUT, deadline, isCancelled))
        return ETIMEDOUT;
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size);
    return error;
}

} // namespace

Handle::~Handle()
{
    if (IsOpen())
        close(descriptor_);
}

Handle::Handle(Handle &&other) noexcept : descriptor_(std::exchange(other.descriptor_, -1))
{}

Handle &Handle::operator=(Handle &&other) noexcept
{
    std::swap(descriptor_, other.descriptor_);
    return *this;
}

void FailStrange()
{
    throw ConnectionError("What answers there does not speak the panel's protocol.");
}

bool WaitForSocket(int socket, short events, Deadline deadline, const CancelCheck &isCancelled)
{
    for (;;) {
        if (isCancelled && isCancelled())
            throw CancelledError();
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        const auto slice = std::clamp(left, std::chrono::milliseconds(0), kSlice);
        pollfd wait = {socket, events, 0};
        if (poll(&wait, 1, static_cast<int>(slice.count())) > 0)
            return true;
        if (Clock::now() >= deadline)
            return false;
    }
}

Handle ConnectTo(const std::string &host, int port, Deadline deadline,
                 const CancelCheck &isCancelled)
{
    const std::string place = host + " port " + std::to_string(port);
    addrinfo hints = {};
    hints.ai_family = AF_INET; // panels have no other
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *first = nullptr;
    const int failure = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &first);
    if (failure != 0)
        throw ConnectionError("Cannot find the address of " + host + ": " + gai_strerror(failure) +
                              ".");
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(first, freeaddrinfo);
    int error = 0;
    for (const addrinfo *at = first; at != nullptr; at = at->ai_next) {
        Handle socket(::socket(at->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        error = socket.IsOpen() ? 0 : errno;
        if (error == 0 && connect(socket.Get(), at->ai_addr, at->ai_addrlen) != 0)
            error =
                errno == EINPROGRESS ? FinishConnect(socket.Get(), deadline, isCancelled) : errno;
        if (error != 0)
            continue;
        const int on = 1;
        setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        return socket;
    }
    throw ConnectionError("Cannot connect to " + place + ": " + std::strerror(error) + ".");
}

LineSocket::LineSocket(Handle socket, CancelCheck isCancelled)
    : socket_(std::move(socket)), isCancelled_(std::move(isCancelled))
{}

bool LineSocket::Send(std::string_view bytes, Deadline deadline, bool stopEarly)
{
    while (!bytes.empty()) {
        const auto events = static_cast<short>(stopEarly ? POLLOUT | POLLIN : POLLOUT);
        if (!WaitForSocket(socket_.Get(), events, deadline, isCancelled_))
            throw ConnectionError("The panel stopped taking what is sent to it.");
        pollfd ready = {socket_.Get(), events, 0};
        poll(&ready, 1, 0);
        if (stopEarly && (ready.revents & POLLIN) != 0)
            return false;
        const ssize_t count = send(socket_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0 && errno != EAGAIN && errno != EINTR)
            FailBroken(errno);
        bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return true;
}

std::optional<std::string> LineSocket::ReadLine(Deadline deadline)
{
    std::size_t searched = 0;
    for (;;) {
        const std::size_t end = received_.find('\n', searched);
        if (end != std::string::npos) {
            std::string line = received_.substr(0, end);
            received_.erase(0, end + 1);
            return line;
        }
        if (received_.size() > kLongestLine)
            FailStrange();
        searched = received_.size();
        if (!Receive(deadline))
            return std::nullopt;
    }
}

std::vector<char> LineSocket::ReadSome(std::size_t count, Deadline deadline)
{
    if (received_.empty() && !Receive(deadline))
        return {};
    const auto end =
        received_.begin() + static_cast<std::ptrdiff_t>(std::min(count, received_.size()));
    std::vector<char> bytes(received_.begin(), end);
    received_.erase(received_.begin(), end);
    return bytes;
}

bool LineSocket::HasEnded()
{
    char byte = 0;
    const ssize_t count = recv(socket_.Get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return received_.empty() && (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR));
}

bool LineSocket::Receive(Deadline deadline)
{
    for (;;) {
        if (!WaitForSocket(socket_.Get(), POLLIN, deadline, isCancelled_))
            return false;
        std::array<char, 65536> bytes;
        const ssize_t count = recv(socket_.Get(), bytes.data(), bytes.size(), 0);
        if (count > 0) {
            received_.append(bytes.data(), static_cast<std::size_t>(count));
            return true;
        }
        if (count == 0)
            FailClosed();
        if (errno != EAGAIN && errno != EINTR)
            FailBroken(errno);
    }
}

} // namespace nimbra::client
