#pragma once

#include "simulator/sandbox/SystemCall.h"

namespace nimbra::sandbox {

/// The real /nimbra and /tmp/NimbraDB, on loan from a machine that has no panel on it: the way out
/// where namespaces are refused. One process has them at a time; others wait in the constructor.
/// At the end both are removed and /etc/hosts holds what it held before, also after a holder that
/// was killed: the next one cleans up first.
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
