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
    /// Connects, and tries again for a while if nobody listens yet. Throws if it cannot.
    explicit ManagementClient(const std::string &address = "127.0.0.1", int port = 9000,
                              milliseconds limit = kSoon);
    /// Takes over a connected socket.
    explicit ManagementClient(Descriptor socket) : socket_(std::move(socket)) {}

    /// Sends bytes. A closed connection is noticed only when reading.
    void Send(std::string_view bytes) const { static_cast<void>(socket_.Send(bytes)); }
    /// Sends a line with a line feed.
    void SendLine(const std::string &line) const { Send(line + "\n"); }
    /// The next line, without its line feed; nothing if none arrives in time.
    [[nodiscard]] std::optional<std::string> ReadLine(milliseconds limit = kSoon);
    /// The next `count` bytes, or those that arrive in time.
    [[nodiscard]] std::string ReadBytes(std::size_t count, milliseconds limit = kSoon);
    /// Sends a line and returns the response line; "(no answer)" if none arrives.
    [[nodiscard]] std::string Ask(const std::string &line, milliseconds limit = kSoon);
    /// Sends a line and returns the header of a list and the Count rows; only the header if it has
    /// no Count.
    [[nodiscard]] std::vector<std::string> AskList(const std::string &line);
    /// Whether nothing is received for this duration.
    [[nodiscard]] bool IsSilent(milliseconds duration);
    /// Whether the agent closes the connection in time.
    [[nodiscard]] bool IsClosedByPeer(milliseconds limit = kSoon);

    /// Logs in and returns the response line.
    [[nodiscard]] std::string Login(const std::string &user, const std::string &password);
    /// Uploads the image of a user and returns the response; "(no answer)" if none arrives.
    [[nodiscard]] std::string Upload(int userNo, const std::string &name, const std::string &bytes);

    /// Closes the connection. Reset discards the unread data of both sides.
    void Close() { socket_.Close(); }
    void Reset();

    /// Negative if it is closed.
    [[nodiscard]] int Socket() const { return socket_.Get(); }
    /// The local port of the connection.
    [[nodiscard]] int LocalPort() const;

private:
    /// Receives bytes; false if none arrived or the connection has ended.
    [[nodiscard]] bool Receive(Deadline deadline);

    LineSocket socket_;
    bool hasEnded_ = false;
};

} // namespace nimbra::test
