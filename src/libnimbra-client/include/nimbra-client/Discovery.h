#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace nimbra::client {

/// A panel that has answered, in its own words.
struct FoundPanel
{
    std::string ModelName;  ///< empty for a model that the panel's agent does not know
    std::string Address;    ///< where the panel says it is
    std::int32_t Port = 0;  ///< likewise
    std::string MacAddress; ///< upper case, with colons
    std::string Sender;     ///< where the answer came from
    std::int32_t Key = 0;   ///< of the probe that was answered; the same for all of one search
};

struct DiscoverOptions
{
    /// Addresses or names to probe; none: everyone on the networks of this machine.
    std::vector<std::string> Targets;
    std::chrono::milliseconds Duration = std::chrono::seconds(5);
    /// Probes are sent again after this time, since datagrams may be lost.
    std::chrono::milliseconds Interval = std::chrono::milliseconds(1500);
    /// Asked several times a second; true throws Cancelled.
    std::function<bool()> IsCancelled;
    /// Called for each panel as it is found.
    std::function<void(const FoundPanel &)> Found;
};

/// Looks for panels and returns each of them once. Answers to the probes of others are ignored.
/// Throws Unreachable when the answers' port cannot be had, or no probe can be sent.
[[nodiscard]] std::vector<FoundPanel> Discover(const DiscoverOptions &options = {});

} // namespace nimbra::client
