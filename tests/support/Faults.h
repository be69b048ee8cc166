#pragma once

#include "support/Agent.h"
#include "support/faults/FaultBoard.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

namespace nimbra::test {

/// Has calls of a running agent fail, and sets its clock: the agent runs with the fault library
/// preloaded, and reads the orders given here. Make it before the agent. One thread.
class Faults
{
public:
    static constexpr std::uint32_t kAlways = std::numeric_limits<std::uint32_t>::max();

    /// Throws std::runtime_error when the orders cannot be laid down.
    Faults();
    ~Faults();
    Faults(const Faults &) = delete;
    Faults &operator=(const Faults &) = delete;

    /// The options of an agent that follows the orders.
    [[nodiscard]] Agent::Options Preloaded() const;

    /// From now on, the call `first` at this point and `number` in all fail with `error`: an errno,
    /// or a result code of SQLite. Replaces earlier orders.
    void Fail(faults::Point point, int error, std::uint32_t first = 1, std::uint32_t number = 1);
    /// Has the calls at this point that fail take so long to do so.
    void Delay(faults::Point point, milliseconds delay)
    {
        At(point).Delay = static_cast<std::uint32_t>(delay.count());
    }
    void Stop(faults::Point point) { Fail(point, 0, 0, 0); }
    /// Calls at this point since the last order, and those of them that have failed.
    [[nodiscard]] std::size_t Calls(faults::Point point) const;
    [[nodiscard]] std::size_t Failed(faults::Point point) const;

    /// Sets the agent's clock so far ahead of the machine's; less than 0 is behind it.
    void SetClock(std::int64_t ahead) { board_->ClockSeconds = ahead; }

private:
    [[nodiscard]] faults::PointState &At(faults::Point point) const
    {
        return board_->Points[static_cast<unsigned>(point)];
    }

    std::string file_;
    faults::FaultBoard *board_ = nullptr;
};

} // namespace nimbra::test
