#pragma once

#include "bench/driver/Report.h"
#include "bench/driver/Server.h"

#include <filesystem>
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
    int RoundTrips;
    int SessionRounds;
    double LoadSeconds;
    double IdleSeconds;
    std::vector<int> LoadSessions;
    std::vector<int> IdleSessions; ///< at least two numbers
    std::vector<int> TableRows;
};

extern const Effort kFull;
extern const Effort kQuick;
/// Enough to see that every line comes out, too little to believe it.
extern const Effort kTiny;

/// What there is to measure, and how thoroughly.
struct Plan
{
    Side Agent;
    Side Baseline;
    std::filesystem::path Methods;     ///< the program that times the methods of DataManager
    std::filesystem::path CommandTool; ///< of the sample panel
    Effort Work;
};

/// Each lays out a sample panel in place, measures and adds its lines to the report. Whatever does
/// not work, and a baseline that answers other bytes than the agent, throws std::exception.
void MeasureMethods(const Plan &plan, Report *report);
void MeasureRequests(const Plan &plan, Report *report);
void MeasureSessions(const Plan &plan, Report *report);
void MeasureTables(const Plan &plan, Report *report);

} // namespace nimbra::bench
