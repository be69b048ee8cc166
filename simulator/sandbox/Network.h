#pragma once

#include <filesystem>

namespace nimbra::sandbox {

inline constexpr char kPanelAddress[] = "192.168.77.10";      ///< of eth0 in the environment
inline constexpr char kSecondHostAddress[] = "192.168.77.20"; ///< of the host at its other end

/// Moves the calling process into a network namespace with a loopback and a wired eth0, whose other
/// end is the eth0 of a second host, in a namespace of its own. That namespace is bound to the
/// given existing file, for setns to enter. Throws std::system_error or std::runtime_error on
/// failure.
void MakeNetwork(const std::filesystem::path &secondHost);

/// Moves the calling thread to the second host. Throws std::system_error on failure.
void EnterSecondHost(const std::filesystem::path &secondHost);

} // namespace nimbra::sandbox
