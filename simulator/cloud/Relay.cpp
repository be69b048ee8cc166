#include "simulator/cloud/Relay.h"

#include <cerrno>
#include <cstdint>
#include <string>
#include <system_error>

#include <netinet/in.h>
#include <sys/socket.h>

namespace nimbra::simulator {

Descriptor OpenListener(int port, ListenOn where)
{
    Descriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int reuse = 1;
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(where == ListenOn::Loopback ? INADDR_LOOPBACK : INADDR_ANY);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    const int number = listener.Get();
    if (!listener.IsOpen() ||
        setsockopt(number, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) != 0 ||
        bind(number, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(number, SOMAXCONN) != 0)
        throw std::system_error(errno, std::generic_category(), "port " + std::to_string(port));
    return listener;
}

void Carry(LineSocket &from, const LineSocket &to)
{
    while (to.Send(from.TakeBytes(from.Received().size())) &&
           from.Receive(Deadline::max()).IsDone())
        continue;
    from.Shutdown();
    to.Shutdown();
}

} // namespace nimbra::simulator
