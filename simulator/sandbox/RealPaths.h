#pragma once

#include "simulator/sandbox/SystemCall.h"

#include <string>

namespace nimbra::sandbox {

/// What the next holder of the real paths must know about one that was killed.
struct HolderRecord
{
    std::string Holder;     ///< all processes of the holder's command have it in their environment
    std::string PanelFiles; ///< identity of the /nimbra that the holder made
    std::string Hosts;      ///< /etc/hosts before the command
};

/// The real /nimbra and /tmp/NimbraDB of a machine that is no panel, for machines that refuse
/// namespaces. One process holds them at a time; others wait in the constructor. The destructor
/// removes both and restores /etc/hosts. After a holder that was killed, the next one does so
/// first, and before that ends the processes that the command has left. It removes nothing unless
/// /nimbra is still the one that the killed holder made.
class RealPaths
{
public:
    /// Throws std::runtime_error when the caller is not root, one of the paths is in use by
    /// something else, or what a killed holder has left cannot be cleaned up.
    RealPaths();
    /// Reports on standard error what it cannot clean up; the next holder tries again.
    ~RealPaths();
    RealPaths(const RealPaths &) = delete;
    RealPaths &operator=(const RealPaths &) = delete;

private:
    Descriptor lock_;
    HolderRecord record_;
};

} // namespace nimbra::sandbox
