#pragma once

#include "base/Descriptor.h"
#include "libnimbra-client/LineSocket.h"

#include <string>

namespace nimbra::client {

using Clock = SocketClock;

/// Throws ConnectionError: what was received does not belong to the protocol.
[[noreturn]] void FailStrange();

/// Opens an IPv4 socket that does not block; none, with errno, on failure. An application may have
/// closed its standard input, whose number the socket never gets.
[[nodiscard]] Descriptor OpenSocket(int type);

/// Waits until the socket can be read; false at the deadline. Throws CancelledError.
[[nodiscard]] bool WaitForInput(int socket, Deadline deadline, const CancelCheck &isCancelled);

/// Connects to a host, by any of its addresses. Throws ConnectionError and CancelledError.
[[nodiscard]] Descriptor ConnectTo(const std::string &host, int port, Deadline deadline,
                                   const CancelCheck &isCancelled = {});

} // namespace nimbra::client
