#pragma once

#include "bench/driver/Report.h"
#include "bench/driver/Server.h"

#include <filesystem>
#include <string>
#include <vector>

namespace nimbra::bench {

/// How much is done for a figure.
struct Effort
{
    int MethodRounds;
    double MethodSeconds; ///< the least time that a method is repeated in a round
    int RequestRounds;
    int RequestScale; ///< number of requests in a batch: 1 for the fewest
    int ListRounds;
    int ListEvents;
    int TripRounds;
    int QuietTrips; ///< round trips in a round, with a pause before each
    int BusyTrips;  ///< round trips in a round, back to back
    int Connections;
    int Probes;
    int Starts;
    double IdleSeconds;
    std::vector<int> IdleSessions;
    int DisconnectedClients;
    int MemoryRounds;
    std::vector<int> MemorySessions; ///< ascending, the first is 0
    int LoadRounds;
    double LoadSeconds;
    std::vector<int> LoadSessions; ///< ascending
    std::vector<int> TableRows;
};

[[nodiscard]] Effort FullEffort();
[[nodiscard]] Effort QuickEffort();
/// Enough to fill every line, too little for figures that mean something.
[[nodiscard]] Effort TinyEffort();

/// What is measured, and how thoroughly.
struct Plan
{
    ServerProgram Agent;
    ServerProgram Baseline;
    ServerProgram Redis;
    ServerProgram Mosquitto;
    std::filesystem::path Methods;     ///< the program that times the methods of DataManager
    std::filesystem::path CommandTool; ///< of the sample panel
    std::string CloudHost;             ///< the name that the agent knows its cloud server by
    Effort Work;
};

/// Who is measured in a turn of a series in which both take turns, and in being first too.
[[nodiscard]] constexpr Role RoleAt(int turn)
{
    return (turn + turn / 2) % 2 == 0 ? Role::Agent : Role::Reference;
}

/// Each creates sample panels in the panel's own paths, measures and adds its lines to the report.
/// A failure, also a baseline that answers other bytes than the agent, throws std::exception.
void MeasureMethods(const Plan &plan, Report *report);
void MeasureRequests(const Plan &plan, Report *report);
void MeasureEvents(const Plan &plan, Report *report);
void MeasureLatency(const Plan &plan, Report *report);
void MeasureIdle(const Plan &plan, Report *report);
void MeasureMemory(const Plan &plan, Report *report);
void MeasureSize(const Plan &plan, Report *report);
void MeasureSessions(const Plan &plan, Report *report);
void MeasureTables(const Plan &plan, Report *report);

} // namespace nimbra::bench
