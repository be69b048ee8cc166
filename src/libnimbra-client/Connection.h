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

/// One TCP connection of a session, and what is known about it. Throws Unreachable and Cancelled.
class Session::Connection
{
public:
    explicit Connection(const SessionOptions &options);

    /// Sends a line. The connection is not usable again until its answer is finished.
    void SendLine(std::string_view line);

    /// The first line of the answer to the line just sent, which must begin with `beginning`. With
    /// `mayProbe`, nothing is returned when the panel has provably passed the line over.
    [[nodiscard]] std::optional<std::string> ReadFirst(std::string_view beginning, bool mayProbe);
    /// The next line of the same answer.
    [[nodiscard]] std::string ReadNext();
    /// The bytes behind a line; fewer when they stop coming.
    [[nodiscard]] std::vector<char> ReadBytes(std::size_t count, const Progress &progress);
    /// Sends bytes behind a line; false when the panel has answered before it took them all.
    [[nodiscard]] bool SendBytes(const std::vector<char> &bytes, const Progress &progress);
    /// Notes that the answer is complete.
    void Finish() { isUnfinished_ = false; }

    /// Sends a heartbeat, whose answer is taken in later.
    void SendHeartbeat();
    /// Whether the panel still serves the connection, and nothing unread is in the way.
    [[nodiscard]] bool IsUsable();

private:
    void Send(std::string_view line);
    [[nodiscard]] bool IsOwed(std::string_view line);

    const SessionOptions options_;
    LineSocket lines_;
    Clock::time_point lastSent_ = Clock::now();
    /// Beginnings of the answers that are still to come and that nobody waits for, in their order.
    std::deque<std::string> owed_;
    bool isUnfinished_ = false;
};

} // namespace nimbra::client
