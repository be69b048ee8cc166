#pragma once

#include "support/Agent.h"
#include "support/faults/SharedState.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace nimbra::test {

/// Makes calls of a running agent fail and sets its clock. The agent runs with the fault library
/// preloaded, which follows the rules set here. Create it before the agent. One thread.
class Faults
{
public:
    static constexpr std::uint32_t kAlways = std::numeric_limits<std::uint32_t>::max();

    /// Throws std::runtime_error if the shared state cannot be created.
    Faults();
    ~Faults();
    Faults(const Faults &) = delete;
    Faults &operator=(const Faults &) = delete;

    /// The options of an agent that follows the rules.
    [[nodiscard]] Agent::Options Preloaded() const;

    /// Makes `number` calls at this point fail with `error`, starting with call `first` from now
    /// on. `error` is an errno or a result code of SQLite. Replaces the point's earlier rule.
    void Fail(faults::Point point, int error, std::uint32_t first = 1, std::uint32_t number = 1);
    /// Sets how long each failing call at this point takes.
    void Delay(faults::Point point, milliseconds delay)
    {
        At(point).Delay = static_cast<std::uint32_t>(delay.count());
    }
    void Stop(faults::Point point) { Fail(point, 0, 0, 0); }
    /// The calls at this point since its last rule was set, and those of them that failed.
    [[nodiscard]] std::size_t Calls(faults::Point point) const;
    [[nodiscard]] std::size_t Failed(faults::Point point) const;

    /// The turn of the last call at this point among the agent's calls at all points; 0 if there
    /// was none.
    [[nodiscard]] std::uint32_t Turn(faults::Point point) const { return At(point).Turn; }

    /// Drops the statements that the agent has given to SQLite so far.
    void ForgetStatements();
    /// The texts of the statements since then, at most faults::kStatements.
    [[nodiscard]] std::vector<std::string> Statements() const;

    /// Sets the agent's clock `ahead` seconds ahead of the machine's; behind it if negative.
    void SetClock(std::int64_t ahead) { state_->ClockSeconds = ahead; }

private:
    [[nodiscard]] faults::PointState &At(faults::Point point) const
    {
        return state_->Points[static_cast<unsigned>(point)];
    }

    std::string file_;
    faults::SharedState *state_ = nullptr;
};

} // namespace nimbra::test
