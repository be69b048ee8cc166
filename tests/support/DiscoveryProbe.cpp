#include "support/DiscoveryProbe.h"

#include "support/Files.h"
#include "support/TestSocket.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <thread>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>

namespace nimbra::test {

namespace {

constexpr char kPanelAddress[] = "192.168.77.10";
constexpr int kProbePort = 9701;
constexpr int kAnswerPort = 9702;

/// A datagram socket of the second host. Only the thread that makes it moves to that network.
Descriptor SocketOnSecondHost()
{
    Descriptor socket;
    std::thread([&socket] {
        const char *name = std::getenv("NIMBRA_SECOND_HOST");
        const Descriptor network(name == nullptr ? -1 : open(name, O_RDONLY | O_CLOEXEC));
        if (network.IsOpen() && setns(network.Get(), CLONE_NEWNET) == 0)
            socket = Descriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    }).join();
    return socket;
}

void SendTo(const Descriptor &socket, const char *address, std::string_view datagram)
{
    const sockaddr_in panel = SocketAddress(address, kProbePort);
    sendto(socket.Get(), datagram.data(), datagram.size(), 0,
           reinterpret_cast<const sockaddr *>(&panel), sizeof panel);
}

/// Where a datagram was sent to, which the receiving socket was asked to report.
std::string DestinationOf(msghdr &message)
{
    std::array<char, INET_ADDRSTRLEN> text = {};
    for (cmsghdr *part = CMSG_FIRSTHDR(&message); part != nullptr;
         part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != IPPROTO_IP || part->cmsg_type != IP_PKTINFO)
            continue;
        in_pktinfo info;
        std::memcpy(&info, CMSG_DATA(part), sizeof info);
        inet_ntop(AF_INET, &info.ipi_addr, text.data(), text.size());
    }
    return text.data();
}

} // namespace

bool IsDiscoveryOpen()
{
    return ReadFile("/proc/net/udp").find(":25E5 ") != std::string::npos;
}

DiscoveryProbe::DiscoveryProbe() : socket_(SocketOnSecondHost())
{
    const int on = 1;
    const sockaddr_in own = SocketAddress("0.0.0.0", kAnswerPort);
    if (!socket_.IsOpen() ||
        setsockopt(socket_.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0 ||
        setsockopt(socket_.Get(), IPPROTO_IP, IP_PKTINFO, &on, sizeof on) != 0 ||
        bind(socket_.Get(), reinterpret_cast<const sockaddr *>(&own), sizeof own) != 0)
        throw std::system_error(errno, std::generic_category(), "no probe on the second host");
}

void DiscoveryProbe::Send(std::string_view datagram) const
{
    SendTo(socket_, kPanelAddress, datagram);
}

void DiscoveryProbe::Broadcast(std::string_view datagram) const
{
    SendTo(socket_, "192.168.77.255", datagram);
}

void DiscoveryProbe::SendFromAnotherPort(std::string_view datagram)
{
    SendTo(SocketOnSecondHost(), kPanelAddress, datagram);
}

std::optional<DiscoveryProbe::Answer> DiscoveryProbe::ReceiveAnswer(milliseconds limit) const
{
    pollfd wait = {socket_.Get(), POLLIN, 0};
    if (poll(&wait, 1, static_cast<int>(limit.count())) < 1)
        return std::nullopt;
    std::array<char, 2048> bytes;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in_pktinfo))> control;
    iovec part = {bytes.data(), bytes.size()};
    sockaddr_in sender = {};
    msghdr message = {};
    message.msg_name = &sender;
    message.msg_namelen = sizeof sender;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t count = recvmsg(socket_.Get(), &message, 0);
    return Answer{std::string(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))),
                  DestinationOf(message), ntohs(sender.sin_port)};
}

std::optional<std::string> DiscoveryProbe::Receive(milliseconds limit) const
{
    const std::optional<Answer> answer = ReceiveAnswer(limit);
    return answer ? std::optional(answer->Text) : std::nullopt;
}

std::string DiscoveryProbe::Ask(std::string_view datagram) const
{
    Send(datagram);
    return Receive().value_or("(no answer)");
}

} // namespace nimbra::test
