#pragma once

#include <ctime>

namespace nimbra::fuzz {

/// The agent's time and threads under a fuzzer's control: no wait takes time, and an input always
/// has the same effect. A fuzzer with AgentTime.cpp among its sources links it in place of
/// base/Wait and base/Thread; if it also wraps `time`, the whole clock of the agent is this one.
///
/// Everything runs in the fuzzer's one thread: what the agent starts as a thread runs at once, to
/// its end, and the fuzzer does its own part in the agent's waits.
class AgentWorld
{
public:
    /// Becomes the present one, in place of the one before, with the clock at its start.
    AgentWorld();
    virtual ~AgentWorld() = default;
    AgentWorld(const AgentWorld &) = delete;
    AgentWorld &operator=(const AgentWorld &) = delete;

    /// Called when the agent waits for a socket. True when there is something new for it;
    /// otherwise a second passes.
    virtual bool OnSocketWait() { return false; }
    /// Called when the agent waits for the clock alone, whose seconds then pass.
    virtual void OnClockWait() {}
    /// Whether a thread that the agent starts now is run; otherwise it only looks started.
    virtual bool OnThread() { return true; }
};

/// The time of the agent's clock.
[[nodiscard]] std::time_t AgentNow();

} // namespace nimbra::fuzz
