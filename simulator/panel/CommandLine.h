#pragma once

#include "simulator/panel/SampleData.h"

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace nimbra::panel {

/// Options that the simulator's programs share.

inline void AddSizeOptions(CLI::App &app, PanelSize &size)
{
    app.add_option("--events", size.Events, "Number of events in the log")
        ->check(CLI::Range(0, 10'000'000))
        ->capture_default_str();
    app.add_option("--users", size.Users, "Number of users")
        ->check(CLI::Range(0, 1'000'000))
        ->capture_default_str();
    app.add_option("--cards", size.Cards, "Number of cards")
        ->check(CLI::Range(0, 1'000'000))
        ->capture_default_str();
    app.add_option("--doors", size.Doors, "Number of doors")
        ->check(CLI::Range(0, 10'000))
        ->capture_default_str();
}

inline void AddActivityOption(CLI::App &app, int &eventsPerMinute)
{
    app.add_option("--activity", eventsPerMinute,
                   "Let people come and go: this many events a minute")
        ->check(CLI::Range(0, 60'000))
        ->capture_default_str();
}

/// The words that give another program the same sizes.
[[nodiscard]] inline std::vector<std::string> SizeWords(const PanelSize &size)
{
    return {"--events", std::to_string(size.Events), "--users", std::to_string(size.Users),
            "--cards",  std::to_string(size.Cards),  "--doors", std::to_string(size.Doors)};
}

} // namespace nimbra::panel
