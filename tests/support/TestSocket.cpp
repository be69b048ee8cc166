#include "support/TestSocket.h"

#include <cstdint>

#include <arpa/inet.h>
#include <netinet/in.h>

namespace nimbra::test {

sockaddr_in SocketAddress(const char *address, int port)
{
    sockaddr_in result = {};
    result.sin_family = AF_INET;
    result.sin_port = htons(static_cast<std::uint16_t>(port));
    inet_pton(AF_INET, address, &result.sin_addr);
    return result;
}

TestSocket::TestSocket(int type) : socket_(socket(AF_INET, type | SOCK_CLOEXEC, 0))
{}

bool TestSocket::Bind(const char *address, int port) const
{
    const sockaddr_in own = SocketAddress(address, port);
    return bind(socket_.Get(), reinterpret_cast<const sockaddr *>(&own), sizeof own) == 0;
}

bool TestSocket::Listen(int backlog) const
{
    return listen(socket_.Get(), backlog) == 0;
}

bool TestSocket::Connect(const char *address, int port) const
{
    const sockaddr_in peer = SocketAddress(address, port);
    return connect(socket_.Get(), reinterpret_cast<const sockaddr *>(&peer), sizeof peer) == 0;
}

bool TestSocket::IsConnected() const
{
    sockaddr_in peer = {};
    socklen_t size = sizeof peer;
    return getpeername(socket_.Get(), reinterpret_cast<sockaddr *>(&peer), &size) == 0;
}

} // namespace nimbra::test
