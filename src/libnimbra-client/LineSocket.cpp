#include "libnimbra-client/LineSocket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include <sys/socket.h>

namespace nimbra {

namespace {

using std::chrono::milliseconds;

/// The time between two calls of the cancel check.
constexpr milliseconds kSlice(100);

/// The longest wait of one poll() when there is no cancel check.
constexpr milliseconds kLongestPoll(60'000);

bool IsTemporary(int error)
{
    return error == EAGAIN || error == EINTR;
}

} // namespace

IoStatus WaitForSocket(int socket, short *events, Deadline deadline, const CancelCheck &isCancelled)
{
    for (;;) {
        if (isCancelled && isCancelled())
            return IoStatus::Cancelled;
        // Rounded up: a wait that ends early would be repeated at once.
        const auto left = std::chrono::ceil<milliseconds>(deadline - SocketClock::now());
        const auto slice = std::clamp(left, milliseconds(0), isCancelled ? kSlice : kLongestPoll);
        pollfd wait = {socket, *events, 0};
        if (poll(&wait, 1, static_cast<int>(slice.count())) > 0) {
            *events = wait.revents;
            return IoStatus::Done;
        }
        if (SocketClock::now() >= deadline)
            return IoStatus::TimedOut;
    }
}

LineSocket::LineSocket(Descriptor socket, CancelCheck isCancelled)
    : socket_(std::move(socket)), isCancelled_(std::move(isCancelled))
{}

void LineSocket::Shutdown() const
{
    shutdown(Get(), SHUT_RDWR);
}

IoResult LineSocket::Send(std::string_view *bytes, Deadline deadline, OnReceive onReceive) const
{
    if (!IsOpen())
        return {IoStatus::Failed, EBADF};
    while (!bytes->empty()) {
        auto events =
            static_cast<short>(onReceive == OnReceive::Interrupt ? POLLOUT | POLLIN : POLLOUT);
        const IoStatus status = WaitForSocket(Get(), &events, deadline, isCancelled_);
        if (status != IoStatus::Done)
            return {status};
        if ((events & POLLIN) != 0)
            return {IoStatus::Interrupted};
        const ssize_t count =
            send(Get(), bytes->data(), bytes->size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && !IsTemporary(errno))
            return {IoStatus::Failed, errno};
        bytes->remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return {};
}

bool LineSocket::Send(std::string_view bytes, Deadline deadline) const
{
    return Send(&bytes, deadline).IsDone();
}

IoResult LineSocket::Receive(Deadline deadline)
{
    if (!IsOpen())
        return {IoStatus::Failed, EBADF};
    for (;;) {
        short events = POLLIN;
        const IoStatus status = WaitForSocket(Get(), &events, deadline, isCancelled_);
        if (status != IoStatus::Done)
            return {status};
        std::array<char, 65536> bytes;
        const ssize_t count = recv(Get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (count > 0) {
            received_.append(bytes.data(), static_cast<std::size_t>(count));
            return {};
        }
        if (count == 0)
            return {IoStatus::Closed};
        if (!IsTemporary(errno))
            return {IoStatus::Failed, errno};
    }
}

std::optional<std::string> LineSocket::TakeLine()
{
    const std::size_t end = received_.find('\n');
    if (end == std::string::npos)
        return std::nullopt;
    std::string line = received_.substr(0, end);
    received_.erase(0, end + 1);
    return line;
}

std::string LineSocket::TakeBytes(std::size_t count)
{
    std::string bytes = received_.substr(0, count);
    received_.erase(0, count);
    return bytes;
}

std::optional<std::string> LineSocket::ReadLine(Deadline deadline)
{
    for (;;) {
        std::optional<std::string> line = TakeLine();
        if (line || !Receive(deadline).IsDone())
            return line;
    }
}

bool LineSocket::HasEnded() const
{
    char byte = 0;
    const ssize_t count = recv(Get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return received_.empty() && (count == 0 || (count < 0 && !IsTemporary(errno)));
}

} // namespace nimbra
