#pragma once

#include "simulator/sandbox/SystemCall.h"

namespace nimbra::sandbox {

/// The real /nimbra and /tmp/NimbraDB of a machine that is no panel, for machines that refuse
/// namespaces. One process holds them at a time; others wait in the constructor. The destructor
/// removes both and restores /etc/hosts. After a holder that was killed, the next one does so
/// first.
class RealPaths
{
public:
    /// Throws std::runtime_error when the caller is not root or one of the paths is in use by
    /// something else.
    RealPaths();
    ~RealPaths();
    RealPaths(const RealPaths &) = delete;
    RealPaths &operator=(const RealPaths &) = delete;

private:
    Descriptor lock_;
};

} // namespace nimbra::sandbox
