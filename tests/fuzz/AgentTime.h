#pragma once

#include <ctime>

namespace nimbra::fuzz {

/// The agent's time and threads under a fuzzer's control: no wait takes time, and an input always
/// does the same. A fuzzer that has AgentTime.cpp among its sources gets it in place of base/Wait
/// and base/Thread, and if it wraps `time`, the agent's clock is this one.
///
/// Everything runs in the fuzzer's one thread: what the agent starts as a thread runs at once, to
/// its end, and what the fuzzer does meanwhile it does in the agent's pauses.
class AgentWorld
{
public:
    /// Enters this world, in place of the one before, with the clock at its start.
    AgentWorld();
    virtual ~AgentWorld() = default;
    AgentWorld(const AgentWorld &) = delete;
    AgentWorld &operator=(const AgentWorld &) = delete;

    /// Called in the agent's pause of a millisecond, of which it makes thousands when it waits for
    /// a peer. True when there is something new for it; otherwise a second passes.
    virtual bool OnMillisecond() { return false; }
    /// Called in a pause of seconds, which then pass.
    virtual void OnSeconds() {}
    /// Whether a thread that the agent starts now is run; otherwise it only looks started.
    virtual bool OnThread() { return true; }
};

/// The time of the agent's clock.
[[nodiscard]] std::time_t AgentNow();

} // namespace nimbra::fuzz
