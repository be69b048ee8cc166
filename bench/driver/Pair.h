#pragma once

#include "bench/driver/Client.h"
#include "bench/driver/Measure.h"
#include "bench/driver/Server.h"

#include <array>
#include <string>

namespace nimbra::bench {

/// A server with one client.
class Station
{
public:
    /// Starts the server and connects; the server need not have accepted the connection yet.
    explicit Station(const ServerProgram &program) : Running(program), Asking(program.Port) {}

    void LogIn();

    /// Processor time of a request in the session's thread, in microseconds: measured over `count`
    /// requests that are sent back to back, each answered with `lines` lines.
    [[nodiscard]] double CostOf(const std::string &request, int count, std::size_t lines);

    Server Running;
    Client Asking;

private:
    [[nodiscard]] int FindThread();

    int thread_ = 0;
};

/// The agent and the baseline on the same panel, each with a client that has logged in. While one
/// is measured, the other waits for a request.
class Pair
{
public:
    explicit Pair(const Plan &plan);

    /// Calls `measure(role, station)` for both in each round; they take turns in being first. A
    /// heartbeat before each call keeps both sessions alive.
    template <class Measure>
    void Run(int rounds, const Measure &measure)
    {
        for (int turn = 0; turn < 2 * rounds; ++turn) {
            const Role role = RoleAt(turn);
            KeepAlive();
            measure(role, role == Role::Agent ? agent_ : baseline_);
        }
    }

    /// The answer of both to a request; throws unless they are the same bytes. `reset` is called
    /// before each.
    template <class Reset>
    [[nodiscard]] std::string CommonAnswer(const std::string &request, const Reset &reset)
    {
        reset();
        std::string ofAgent = agent_.Asking.AskAll(request);
        reset();
        RequireSame(request, ofAgent, baseline_.Asking.AskAll(request));
        return ofAgent;
    }

private:
    void KeepAlive();
    static void RequireSame(const std::string &request, const std::string &ofAgent,
                            const std::string &ofBaseline);

    Station agent_;
    Station baseline_;
};

} // namespace nimbra::bench
