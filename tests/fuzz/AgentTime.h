#pragma once

#include <ctime>

namespace nimbra::fuzz {

/// The agent's clock and threads under a fuzzer's control: no wait takes time, and an input always
/// has the same effect. A fuzzer links AgentTime.cpp in place of base/Wait and base/Thread; if it
/// also wraps `time`, it controls every clock that the agent reads.
///
/// Everything runs in the fuzzer's one thread: a thread that the agent starts runs at once and to
/// its end, and the fuzzer acts in the agent's waits.
class AgentEnvironment
{
public:
    /// Becomes the current environment, in place of an earlier one, and resets the clock.
    AgentEnvironment();
    virtual ~AgentEnvironment() = default;
    AgentEnvironment(const AgentEnvironment &) = delete;
    AgentEnvironment &operator=(const AgentEnvironment &) = delete;

    /// Called when the agent waits for a socket. True when the socket has new input; otherwise
    /// the clock advances by a second.
    virtual bool OnSocketWait() { return false; }
    /// Called when the agent waits for the clock alone, before the clock advances.
    virtual void OnClockWait() {}
    /// Whether a thread that the agent starts now runs; otherwise the start is only reported.
    virtual bool OnThread() { return true; }
};

/// The current time of the agent's clock.
[[nodiscard]] std::time_t AgentNow();

} // namespace nimbra::fuzz
