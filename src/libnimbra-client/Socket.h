#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <poll.h>
#include <sys/socket.h>

namespace nimbra::client {

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

/// What the options of a session and of a search call IsCancelled.
using CancelCheck = std::function<bool()>;

/// Owns a descriptor. One thread at a time.
class Handle
{
public:
    explicit Handle(int descriptor = -1) : descriptor_(descriptor) {}
    ~Handle();
    Handle(Handle &&other) noexcept;
    Handle &operator=(Handle &&other) noexcept;

    [[nodiscard]] int Get() const { return descriptor_; }
    [[nodiscard]] bool IsOpen() const { return descriptor_ >= 0; }

private:
    int descriptor_;
};

/// Throws ConnectionError: what came is none of the protocol.
[[noreturn]] void FailStrange();

/// Waits until the socket has one of the events; false at the deadline. Throws CancelledError.
[[nodiscard]] bool WaitForSocket(int socket, short events, Deadline deadline,
                                 const CancelCheck &isCancelled);

/// Connects to a host, by any of its addresses. Throws ConnectionError and CancelledError.
[[nodiscard]] Handle ConnectTo(const std::string &host, int port, Deadline deadline,
                               const CancelCheck &isCancelled);

/// A connection on which lines and raw bytes come and go. Throws ConnectionError when the
/// connection breaks, and CancelledError. One thread at a time.
class LineSocket
{
public:
    LineSocket(Handle socket, CancelCheck isCancelled);

    /// Sends all the bytes. With `stopEarly` it stops, and returns false, when bytes are received
    /// meanwhile.
    bool Send(std::string_view bytes, Deadline deadline, bool stopEarly = false);
    /// The next line without its line feed; nothing at the deadline.
    [[nodiscard]] std::optional<std::string> ReadLine(Deadline deadline);
    /// Up to `count` bytes, at least one; none at the deadline.
    [[nodiscard]] std::vector<char> ReadSome(std::size_t count, Deadline deadline);
    /// Whether the other end has closed the connection and everything that it sent is read.
    [[nodiscard]] bool HasEnded();

private:
    /// Takes in what comes; false at the deadline.
    [[nodiscard]] bool Receive(Deadline deadline);

    Handle socket_;
    CancelCheck isCancelled_;
    std::string received_;
};

} // namespace nimbra::client
