#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace nimbra::client {

/// A panel that responded to a probe.
struct DiscoveredPanel
{
    std::string ModelName;  ///< empty for a model that the panel's agent does not know
    std::string Address;    ///< the panel's address as it reports it
    std::int32_t Port = 0;  ///< the panel's port as it reports it
    std::string MacAddress; ///< upper case, with colons
    std::string Sender;     ///< the address that sent the response
    std::int32_t Key = 0;   ///< of the probe; the same for all panels of one discovery
};

struct DiscoveryOptions
{
    /// Addresses or names to probe. Empty: broadcast on all networks of this machine.
    std::vector<std::string> Targets;
    /// The whole time of the discovery, up to 100 years; 0 or less sends no probe.
    std::chrono::milliseconds Duration = std::chrono::seconds(5);
    /// Probes are repeated after this time because datagrams may be lost. More than 0, or they are
    /// sent without a pause; up to 100 years.
    std::chrono::milliseconds ProbeInterval = std::chrono::milliseconds(1500);
    /// Called several times a second; when it returns true, CancelledError is thrown.
    std::function<bool()> IsCancelled;
    /// Called for each panel when its first response arrives.
    std::function<void(const DiscoveredPanel &)> OnFound;
};

/// Sends probes, waits for `Duration` and returns each panel that responded once. Ignores responses
/// to the probes of other programs. Throws ConnectionError when UDP port 9702 cannot be opened, a
/// target's address cannot be found or no probe can be sent, and CancelledError. Any thread; the
/// callbacks are called on the caller's.
[[nodiscard]] std::vector<DiscoveredPanel> Discover(const DiscoveryOptions &options = {});

} // namespace nimbra::client
