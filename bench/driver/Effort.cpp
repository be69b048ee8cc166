#include "bench/driver/Measure.h"

namespace nimbra::bench {

Effort FullEffort()
{
    return {.MethodRounds = 9,
            .MethodSeconds = 0.02,
            .RequestRounds = 21,
            .RequestScale = 10,
            .ListRounds = 7,
            .ListEvents = 100000,
            .TripRounds = 401,
            .QuietTrips = 15,
            .BusyTrips = 100,
            .Connections = 100,
            .Probes = 100,
            .Starts = 11,
            .IdleSeconds = 20,
            .IdleSessions = {0, 200, 1000},
            .DisconnectedClients = 50,
            .MemoryRounds = 3,
            .MemorySessions = {0, 20, 200},
            .LoadRounds = 5,
            .LoadSeconds = 0.5,
            .LoadSessions = {1, 2, 4, 8, 16, 32, 64, 128, 256},
            .TableRows = {100, 1000, 10000, 100000}};
}

Effort QuickEffort()
{
    return {.MethodRounds = 2,
            .MethodSeconds = 0.01,
            .RequestRounds = 3,
            .RequestScale = 4,
            .ListRounds = 3,
            .ListEvents = 100000,
            .TripRounds = 15,
            .QuietTrips = 10,
            .BusyTrips = 100,
            .Connections = 20,
            .Probes = 20,
            .Starts = 3,
            .IdleSeconds = 5,
            .IdleSessions = {0, 200},
            .DisconnectedClients = 50,
            .MemoryRounds = 1,
            .MemorySessions = {0, 20, 200},
            .LoadRounds = 3,
            .LoadSeconds = 0.2,
            .LoadSessions = {1, 4, 16, 64},
            .TableRows = {100, 10000}};
}

Effort TinyEffort()
{
    return {.MethodRounds = 1,
            .MethodSeconds = 0.0001,
            .RequestRounds = 1,
            .RequestScale = 1,
            .ListRounds = 1,
            .ListEvents = 1000,
            .TripRounds = 2,
            .QuietTrips = 2,
            .BusyTrips = 2,
            .Connections = 2,
            .Probes = 2,
            .Starts = 1,
            .IdleSeconds = 1,
            .IdleSessions = {0, 2},
            .DisconnectedClients = 2,
            .MemoryRounds = 1,
            .MemorySessions = {0, 2},
            .LoadRounds = 1,
            .LoadSeconds = 0.05,
            .LoadSessions = {1, 2},
            .TableRows = {100}};
}

} // namespace nimbra::bench
