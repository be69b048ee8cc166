#pragma once

#include "libnimbra-client/LineSocket.h"

namespace nimbra::simulator {

/// Listens on a port, of loopback only or of every address. Throws std::system_error when it is
/// taken.
[[nodiscard]] Descriptor OpenListener(int port, bool loopbackOnly);

/// Carries what one connection receives to the other until either closes or fails, and then ends
/// both. What has been received before is carried first.
void Carry(LineSocket &from, const LineSocket &to);

} // namespace nimbra::simulator
