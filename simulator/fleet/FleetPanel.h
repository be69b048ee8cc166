#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include <sys/types.h>

namespace nimbra::simulator {

/// The address of the cloud server in the network of each panel.
inline constexpr char kFleetServerAddress[] = "10.77.0.1";
/// The most panels that have addresses of their own.
inline constexpr int kMostPanels = 10'000;

/// A sample panel with its agent, in a network of its own that leads to the caller's network. Its
/// log is in /tmp. The caller runs in a sandbox and has a single thread until all panels exist.
class FleetPanel
{
public:
    /// Panels are numbered from 1. `programs` is the directory of the simulator's programs. Throws
    /// std::system_error or std::runtime_error.
    FleetPanel(int number, const std::filesystem::path &programs);
    /// Ends the agent and waits for it.
    ~FleetPanel();
    FleetPanel(const FleetPanel &) = delete;
    FleetPanel &operator=(const FleetPanel &) = delete;

    /// The number of the panel with this MAC address.
    [[nodiscard]] static int NumberOf(const std::string &macAddress);

    [[nodiscard]] int Number() const { return number_; }
    /// How many connections the panel has begun, refused ones too.
    [[nodiscard]] std::uint64_t Connections() const;
    /// How many bytes it has sent and received, with all headers.
    [[nodiscard]] std::uint64_t Bytes() const;

    // Of the agent; 0 when it has ended.
    [[nodiscard]] std::size_t Descriptors() const;
    [[nodiscard]] std::size_t Threads() const;
    [[nodiscard]] std::size_t ResidentKiB() const;

private:
    [[nodiscard]] std::filesystem::path AgentDirectory() const;

    int number_;
    pid_t sandbox_ = -1;
};

} // namespace nimbra::simulator
