#pragma once

#include "base/Descriptor.h"
#include "simulator/scenario/Scenario.h"

#include <functional>
#include <iosfwd>
#include <string>

namespace nimbra::simulator {

/// Where and how a scenario is played.
struct PlayerOptions
{
    /// Makes a connected TCP socket; none, with the reason, on failure.
    std::function<Descriptor(std::string *error)> Connect;
    /// Receives everything that is shown.
    std::ostream *Out = nullptr;
    /// Whether to colour it, for a terminal.
    bool HasColour = false;
    /// Limit of each reply and of each transfer, in seconds.
    int ReplySeconds = 15;
};

/// Plays `scenario`: connects when the first line is to be sent, shows every line sent and
/// received, and stops at the first thing that is not as the scenario says, showing what was
/// expected and what was received. Returns whether everything was as written. The output of all
/// runs that pass is the same, except for what "*" matches.
[[nodiscard]] bool PlayScenario(const Scenario &scenario, const PlayerOptions &options);

} // namespace nimbra::simulator
