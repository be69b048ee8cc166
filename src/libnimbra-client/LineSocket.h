#pragma once

#include "base/Descriptor.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <poll.h>

namespace nimbra {

/// How a wait for the peer of a socket ended.
enum class IoStatus
{
    Done,
    TimedOut,    ///< at the deadline
    Cancelled,   ///< the cancel check said so
    Interrupted, ///< bytes were received before all were sent
    Closed,      ///< by the peer
    Failed
};

struct IoResult
{
    IoStatus Status = IoStatus::Done;
    int Error = 0; ///< the errno of a failure

    [[nodiscard]] bool IsDone() const { return Status == IoStatus::Done; }
};

/// Called several times a second while a call waits; true ends the wait.
using CancelCheck = std::function<bool()>;

using SocketClock = std::chrono::steady_clock;
using Deadline = SocketClock::time_point;

/// Whether Send ends when bytes are received meanwhile.
enum class OnReceive
{
    SendOn,
    Interrupt
};

/// Waits until the socket has one of the events, which are set in `*events` then.
[[nodiscard]] IoStatus WaitForSocket(int socket, short *events, Deadline deadline,
                                     const CancelCheck &isCancelled = {});

/// Owns a connected stream socket, blocking or not, on which lines and raw bytes are sent and
/// received. Nothing is thrown. One thread may receive while another one sends.
class LineSocket
{
public:
    explicit LineSocket(Descriptor socket = Descriptor(), CancelCheck isCancelled = {});

    /// Negative when there is none.
    [[nodiscard]] int Get() const { return socket_.IsOpen() ? socket_.Get() : -1; }
    [[nodiscard]] bool IsOpen() const { return socket_.IsOpen(); }
    void Close() { socket_.Close(); }
    /// Ends the connection in both directions; a thread that waits for it wakes up.
    void Shutdown() const;

    /// Sends the bytes and removes what is sent from the front of `*bytes`.
    [[nodiscard]] IoResult Send(std::string_view *bytes, Deadline deadline,
                                OnReceive onReceive = OnReceive::SendOn) const;
    /// The same; false when not all bytes were sent.
    [[nodiscard]] bool Send(std::string_view bytes, Deadline deadline = Deadline::max()) const;

    /// Receives what has come, at least one byte, and appends it to Received().
    [[nodiscard]] IoResult Receive(Deadline deadline);
    /// What is received and not taken yet.
    [[nodiscard]] const std::string &Received() const { return received_; }
    /// Takes the first line received, without its line feed; nothing when there is no whole line.
    [[nodiscard]] std::optional<std::string> TakeLine();
    /// Takes up to `count` of the bytes received.
    [[nodiscard]] std::string TakeBytes(std::size_t count);
    /// Receives until there is a line and takes it; nothing when none comes.
    [[nodiscard]] std::optional<std::string> ReadLine(Deadline deadline = Deadline::max());

    /// Whether the peer has closed the connection or it has failed, and everything is taken.
    [[nodiscard]] bool HasEnded() const;

private:
    Descriptor socket_;
    CancelCheck isCancelled_;
    std::string received_;
};

} // namespace nimbra
