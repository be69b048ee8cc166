#include "bench/driver/Measure.h"

namespace nimbra::bench {

const Effort kFull = {.MethodRounds = 9,
                      .MethodSeconds = 0.02,
                      .RequestRounds = 11,
                      .RequestScale = 10,
                      .ListRounds = 7,
                      .ListEvents = 100000,
                      .RoundTrips = 2000,
                      .SessionRounds = 3,
                      .LoadSeconds = 0.7,
                      .IdleSeconds = 2,
                      .LoadSessions = {1, 2, 4, 8, 16, 32, 64, 128, 256},
                      .IdleSessions = {1, 20, 200},
                      .TableRows = {100, 1000, 10000, 100000}};

const Effort kQuick = {.MethodRounds = 2,
                       .MethodSeconds = 0.01,
                       .RequestRounds = 3,
                       .RequestScale = 4,
                       .ListRounds = 2,
                       .ListEvents = 100000,
                       .RoundTrips = 300,
                       .SessionRounds = 1,
                       .LoadSeconds = 0.3,
                       .IdleSeconds = 0.5,
                       .LoadSessions = {1, 4, 16, 64},
                       .IdleSessions = {1, 20},
                       .TableRows = {100, 10000}};

const Effort kTiny = {.MethodRounds = 1,
                      .MethodSeconds = 0.0001,
                      .RequestRounds = 1,
                      .RequestScale = 1,
                      .ListRounds = 1,
                      .ListEvents = 1000,
                      .RoundTrips = 10,
                      .SessionRounds = 1,
                      .LoadSeconds = 0.05,
                      .IdleSeconds = 0.1,
                      .LoadSessions = {1},
                      .IdleSessions = {1, 2},
                      .TableRows = {100}};

} // namespace nimbra::bench
