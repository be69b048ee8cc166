#pragma once

#include "libnimbra-client/LineSocket.h"
#include "support/Waiting.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace nimbra::test {

/// A management application: a TCP connection on which lines are sent and received. One thread.
class ManagementClient
{
public:
    /// Connects, trying again for a while when nobody listens yet; fails the test otherwise.
    explicit ManagementClient(const std::string &address = "127.0.0.1", int port = 9000,
                              milliseconds limit = kSoon);
    /// Takes over a connected socket.
    explicit ManagementClient(Descriptor socket) : socket_(std::move(socket)) {}

    /// Sends bytes as they are; a closed connection is seen by what reads from it.
    void Send(std::string_view bytes) const { static_cast<void>(socket_.Send(bytes)); }
    /// Sends a line and its line feed.
    void SendLine(const std::string &line) const { Send(line + "\n"); }
    /// The next line received, without its line feed; nothing when none comes in time.
    [[nodiscard]] std::optional<std::string> ReadLine(milliseconds limit = kSoon);
    /// The next `count` bytes, or as many as come in time.
    [[nodiscard]] std::string ReadBytes(std::size_t count, milliseconds limit = kSoon);
    /// Sends a line and returns the line that answers it; "(no answer)" when none comes.
    [[nodiscard]] std::string Ask(const std::string &line, milliseconds limit = kSoon);
    /// Sends a line and returns the header and the rows of a list, as many as the header's Count
    /// says; the header alone when it holds no Count.
    [[nodiscard]] std::vector<std::string> AskList(const std::string &line);
    /// Whether nothing at all is received for so long.
    [[nodiscard]] bool IsSilent(milliseconds duration);
    /// Whether the agent closes the connection in time.
    [[nodiscard]] bool IsClosedByPeer(milliseconds limit = kSoon);

    /// Logs in; the answer line.
    [[nodiscard]] std::string Login(const std::string &user, const std::string &password);

    /// Closes the connection; with a reset, unread data of both sides is thrown away.
    void Close() { socket_.Close(); }
    void Reset();

    /// Negative when it is closed.
    [[nodiscard]] int Socket() const { return socket_.Get(); }
    /// The client's own port.
    [[nodiscard]] int LocalPort() const;

private:
    /// Receives bytes; false when none came, or the connection has ended.
    [[nodiscard]] bool Receive(Deadline deadline);

    LineSocket socket_;
    bool hasEnded_ = false;
};

} // namespace nimbra::test
