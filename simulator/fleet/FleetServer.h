#pragma once

#include "simulator/cloud/CloudServer.h"

#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>

namespace nimbra::simulator {

/// The cloud server of a fleet, which can be stopped and started again, and what it has been asked
/// since it was last started. Any thread, but one at a time starts or stops it.
class FleetServer
{
public:
    FleetServer() = default;
    ~FleetServer() { Stop(); }
    FleetServer(const FleetServer &) = delete;
    FleetServer &operator=(const FleetServer &) = delete;

    /// Throws std::system_error.
    void Start();
    void Stop() { server_.reset(); }

    /// How many panels have registered, and how many have sent a heartbeat.
    [[nodiscard]] std::size_t Registered() const;
    [[nodiscard]] std::size_t SendingHeartbeats() const;
    /// All heartbeats.
    [[nodiscard]] std::size_t Heartbeats() const;

    /// Opens one session through the relay for each of the panels, from 1 to `panels`, and asks it
    /// for a greeting. Returns the number of those that have answered in time.
    [[nodiscard]] int Relay(int panels, std::chrono::seconds limit);

private:
    [[nodiscard]] Reply Answer(CloudServer &server, const std::string &request);

    mutable std::mutex lock_;
    std::map<int, std::size_t> registrations_; ///< by the number of the panel
    std::map<int, std::size_t> heartbeats_;
    std::set<int> toRelay_; ///< panels whose next heartbeat opens a session
    std::optional<CloudServer> server_;
};

} // namespace nimbra::simulator
