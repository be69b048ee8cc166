#pragma once

#include "libnimbra-client/Socket.h"

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nimbra-client/Session.h>

namespace nimbra::client {

/// What happens when the panel sends nothing for some seconds after a line.
enum class OnSilence
{
    Wait,
    Probe ///< asks whether the panel has lost the line
};

/// One TCP connection of a session and its state. Throws ConnectionError and CancelledError.
class Session::Connection
{
public:
    explicit Connection(const SessionOptions &options);

    /// Sends a line. The connection is not usable again until Finish().
    void SendLine(std::string_view line);

    /// Returns the first line of the response to the line just sent, which must begin with
    /// `beginning`. With a probe, returns nothing when the panel has provably lost the line.
    [[nodiscard]] std::optional<std::string> ReadFirst(std::string_view beginning,
                                                       OnSilence onSilence);
    /// Returns the next line of the same response.
    [[nodiscard]] std::string ReadNext();
    /// Returns the bytes after a line; fewer when they stop arriving.
    [[nodiscard]] std::vector<char> ReadBytes(std::size_t count, const ProgressCallback &progress);
    /// Sends bytes after a line. Returns false when the panel responds before it received them all.
    [[nodiscard]] bool SendBytes(const std::vector<char> &bytes, const ProgressCallback &progress);
    /// Marks the response as complete.
    void Finish() { isUnfinished_ = false; }

    /// Sends a heartbeat; its response is read later.
    void SendHeartbeat();
    /// Whether the panel still serves the connection and no unread response is in the way.
    [[nodiscard]] bool IsUsable();

private:
    void Send(std::string_view line);
    /// Sends the bytes; false when the panel answers before it took them all and `onReceive` says
    /// that this ends the sending.
    bool Send(std::string_view bytes, OnReceive onReceive);
    /// The next line; nothing at the deadline.
    [[nodiscard]] std::optional<std::string> ReadLine(Deadline deadline);
    /// Receives bytes; false at the deadline.
    [[nodiscard]] bool Receive(Deadline deadline);
    /// Whether the line is the next expected response; forgets it then.
    [[nodiscard]] bool IsExpected(std::string_view line);

    const SessionOptions options_;
    LineSocket lines_;
    Clock::time_point lastSent_ = Clock::now();
    /// Beginnings of the responses that are still to arrive and that no caller waits for, in order.
    std::deque<std::string> expected_;
    bool isUnfinished_ = false;
};

} // namespace nimbra::client
