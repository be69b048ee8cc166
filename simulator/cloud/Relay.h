#pragma once

#include "libnimbra-client/LineSocket.h"

namespace nimbra::simulator {

enum class ListenOn
{
    Loopback,
    AllAddresses
};

/// Listens on a port; 0 is any free one. Throws std::system_error when it is taken.
[[nodiscard]] Descriptor OpenListener(int port, ListenOn where);

/// Carries what one connection receives to the other until either closes or fails, and then ends
/// both. What has been received before is carried first.
void Carry(LineSocket &from, const LineSocket &to);

} // namespace nimbra::simulator
