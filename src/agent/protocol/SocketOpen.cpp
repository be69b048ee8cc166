#include "protocol/SocketOpen.h"

#include <fcntl.h>
#include <sys/socket.h>

namespace nimbra {

namespace {

/// A socket with one option set; the failure messages are those of both kinds.
Descriptor Open(int type, int protocol, int option, const LogSite &site)
{
    Descriptor socket(::socket(AF_INET, type | SOCK_CLOEXEC, protocol));
    if (!socket.IsOpen()) {
        Log(site, "socket fail");
        return socket;
    }
    const int on = 1;
    if (setsockopt(socket.Get(), SOL_SOCKET, option, &on, sizeof on) != 0) {
        Log(site, "setsockopt fail");
        socket.Close();
    }
    return socket;
}

} // namespace

Descriptor OpenTcpSocket(const LogSite &site)
{
    Descriptor socket = Open(SOCK_STREAM, IPPROTO_TCP, SO_REUSEADDR, site);
    if (!socket.IsOpen())
        return socket;
    const int flags = fcntl(socket.Get(), F_GETFL);
    if (flags < 0 || fcntl(socket.Get(), F_SETFL, flags | O_NONBLOCK) < 0) {
        Log(site, "fcntl fail");
        socket.Close();
    }
    return socket;
}

Descriptor OpenBroadcastSocket(const LogSite &site)
{
    return Open(SOCK_DGRAM, 0, SO_BROADCAST, site);
}

SocketAddress::SocketAddress(in_addr_t address, std::int32_t port)
{
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = address;
    address_.sin_port = htons(static_cast<std::uint16_t>(port));
}

const sockaddr *SocketAddress::Get() const
{
    return reinterpret_cast<const sockaddr *>(&address_);
}

} // namespace nimbra
