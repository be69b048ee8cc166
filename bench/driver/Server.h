#pragma once

#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace nimbra::bench {

/// A program that serves clients on loopback.
struct ServerProgram
{
    /// What becomes of its standard error.
    enum class Errors
    {
        Show,
        Drop
    };

    std::filesystem::path Path;
    std::vector<std::string> Arguments;
    int Port;
    Errors OnError = Errors::Show;
};

/// Memory of a process, in KiB.
struct Memory
{
    double Resident = 0;
    double Proportional = 0; ///< resident, where pages that n processes share count 1/n
    double PrivateDirty = 0; ///< written by the process and shared with no other
};

/// A running server, and the processor time and memory that it takes. Killed at the end of the
/// object. Failures throw std::runtime_error or std::system_error.
class Server
{
public:
    explicit Server(const ServerProgram &program);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    /// Waits until it accepts connections, without making one.
    void AwaitListening() const;
    /// The ids of its threads.
    [[nodiscard]] std::set<int> Threads() const;
    /// Processor time of one thread, user and system, in seconds; 0 for a thread that has ended.
    [[nodiscard]] double ProcessorTime(int thread) const;
    /// Processor time of the process, threads that have ended included.
    [[nodiscard]] double ProcessorTime() const;
    [[nodiscard]] Memory MemoryInUse() const;

private:
    int port_;
    int pid_;
};

} // namespace nimbra::bench
