#pragma once

#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace nimbra::bench {

/// What is measured: the agent, and the baseline that it is measured against.
struct Side
{
    std::string Name;
    std::filesystem::path Program;
    int Port;
};

/// A running server, and what it costs the machine. Ended, without mercy, with the object.
class Server
{
public:
    explicit Server(const Side &side);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    [[nodiscard]] int Port() const { return port_; }
    /// The ids of its threads.
    [[nodiscard]] std::set<int> Threads() const;
    /// Processor time of one thread, or of all that are alive, in seconds; user and system. 0 for
    /// a thread that has ended.
    [[nodiscard]] double ProcessorTime(int thread) const;
    [[nodiscard]] double ProcessorTime() const;
    /// Memory that is its own and resident, in KiB.
    [[nodiscard]] double PrivateMemory() const;

private:
    int port_;
    int pid_;
};

} // namespace nimbra::bench
