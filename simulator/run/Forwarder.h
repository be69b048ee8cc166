#pragma once

#include "base/Descriptor.h"

namespace nimbra::simulator {

/// Serves a listening socket on threads of its own until the program ends: carries each connection
/// to a port of this machine and back. The socket may belong to another network than the process:
/// so clients outside a sandbox reach a port inside it.
void ForwardConnections(Descriptor listener, int port);

} // namespace nimbra::simulator
