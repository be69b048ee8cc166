#pragma once

#include "base/Descriptor.h"

#include <utility>

#include <netinet/in.h>
#include <sys/socket.h>

namespace nimbra::test {

/// The address in digits and dots. Any thread.
[[nodiscard]] sockaddr_in SocketAddress(const char *address, int port);

/// An IPv4 socket of a test. One thread.
class TestSocket
{
public:
    /// `type` is SOCK_STREAM or SOCK_DGRAM, with flags such as SOCK_NONBLOCK.
    explicit TestSocket(int type = SOCK_STREAM);

    [[nodiscard]] bool Bind(const char *address, int port) const;
    [[nodiscard]] bool Listen(int backlog) const;
    /// Whether the connection is established at once.
    [[nodiscard]] bool Connect(const char *address = "127.0.0.1", int port = 9000) const;
    /// Whether a pending connection is established now.
    [[nodiscard]] bool IsConnected() const;

    [[nodiscard]] Descriptor Release() { return std::move(socket_); }

private:
    Descriptor socket_;
};

} // namespace nimbra::test
