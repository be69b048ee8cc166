#pragma once

#include "bench/driver/Client.h"
#include "bench/driver/Measure.h"
#include "bench/driver/Server.h"

#include <array>
#include <chrono>
#include <string>

namespace nimbra::bench {

/// A server with one client.
class Station
{
public:
    /// Starts the server and connects; the server need not have accepted yet.
    explicit Station(const Side &side) : Running(side), Asking(side.Port) {}

    void LogIn();

    /// Processor time that a request costs the session's thread, in microseconds: measured over
    /// `count` requests that are sent back to back, each answered with `lines` lines.
    [[nodiscard]] double CostOf(const std::string &request, int count, std::size_t lines);

    Server Running;
    Client Asking;

private:
    [[nodiscard]] int FindThread();

    int thread_ = 0;
};

/// The agent and the baseline on the same panel, each with a client that has logged in. While one
/// is measured, the other does no more than look for a request each millisecond.
class Pair
{
public:
    explicit Pair(const Plan &plan);

    /// Calls `measure(isAgent, station)` for both sides in each round; they take turns in being
    /// first. Neither session is left alone for longer than it lives.
    template <class Measure>
    void Run(int rounds, const Measure &measure)
    {
        for (int turn = 0; turn < 2 * rounds; ++turn) {
            const std::size_t side = static_cast<std::size_t>((turn + turn / 2) % 2);
            KeepAlive();
            measure(side == 0, stations_[side]);
        }
    }

    /// The answer of both to a request; throws unless they are the same bytes. `reset` is called
    /// before each.
    template <class Reset>
    [[nodiscard]] std::string CommonAnswer(const std::string &request, const Reset &reset)
    {
        std::array<std::string, 2> answers;
        for (std::size_t side = 0; side < 2; ++side) {
            reset();
            answers[side] = stations_[side].Asking.AskAll(request);
        }
        RequireSame(request, answers);
        return answers[0];
    }

private:
    void KeepAlive();
    static void RequireSame(const std::string &request, const std::array<std::string, 2> &answers);

    std::array<Station, 2> stations_;
};

/// Lays out a sample panel in place, with as many users, cards and events.
void LayOut(const Plan &plan, int events, int users);

/// Makes the users and the journal of the panel what they were when it had been laid out.
void ResetUsers(int users);

/// Seconds since an arbitrary moment.
[[nodiscard]] inline double Now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void Sleep(double seconds);

} // namespace nimbra::bench
