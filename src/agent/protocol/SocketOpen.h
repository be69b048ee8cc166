#pragma once

#include "base/Descriptor.h"
#include "base/Log.h"

#include <cstdint>

#include <netinet/in.h>

namespace nimbra {

/// Makes a non-blocking TCP socket whose address may be used again at once. Not open on failure,
/// after "socket fail", "setsockopt fail" or "fcntl fail" was logged at `site`. Any thread.
[[nodiscard]] Descriptor OpenTcpSocket(const LogSite &site);

/// Makes a UDP socket that may broadcast. Failures as above, but for fcntl. Any thread.
[[nodiscard]] Descriptor OpenBroadcastSocket(const LogSite &site);

/// An IPv4 address and a port as the socket calls take them.
class SocketAddress
{
public:
    /// `address` is in network byte order; of `port` the low 16 bits count.
    SocketAddress(in_addr_t address, std::int32_t port);

    [[nodiscard]] const sockaddr *Get() const;
    [[nodiscard]] static constexpr socklen_t Size() { return sizeof(sockaddr_in); }

private:
    sockaddr_in address_ = {};
};

} // namespace nimbra
