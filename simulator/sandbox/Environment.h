#pragma once

#include <filesystem>
#include <vector>

namespace nimbra::sandbox {

/// In an environment: names the file that leads to the network of the second host.
inline constexpr char kSecondHostVariable[] = "NIMBRA_SECOND_HOST";

struct EnvironmentOptions
{
    bool HostNetwork = false;
    /// Absolute paths that stay visible although they lie below /tmp.
    std::vector<std::filesystem::path> Keep;
};

/// Moves the calling process, which must have a single thread, into an environment of its own: the
/// file tree of the host with a fresh /tmp and /nimbra and an own /etc/hosts, and, unless
/// HostNetwork is set, a network with loopback, eth0 and a second host behind it. The working
/// directory stays where it was if it can be seen, and is "/" otherwise. Everything vanishes with
/// the last process of the environment. Throws std::system_error or std::runtime_error when the
/// machine refuses; the process is then fit for nothing but its end.
void EnterEnvironment(const EnvironmentOptions &options);

} // namespace nimbra::sandbox
