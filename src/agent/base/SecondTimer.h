#pragma once

#include "base/Wait.h"

#include <ctime>

namespace nimbra {

/// Counts whole seconds of the system's clock, for every limit and interval of the agent. The clock
/// may be set at any time. When it is set forward, the seconds pass at once; when it is set back to
/// before the start, the count begins anew, so that no wait takes longer than twice its length. One
/// thread.
class SecondTimer
{
public:
    explicit SecondTimer(std::time_t now = ClockSecond()) : start_(now) {}

    /// A timer that has counted more than any limit.
    [[nodiscard]] static SecondTimer Expired() { return SecondTimer(kLongBeforeAnyClock); }

    /// The seconds since the timer was made, or since it was last found ahead of the clock.
    [[nodiscard]] std::time_t Elapsed(std::time_t now = ClockSecond())
    {
        if (now < start_)
            start_ = now;
        return now - start_;
    }

private:
    static constexpr std::time_t kLongBeforeAnyClock = -86400;

    std::time_t start_;
};

} // namespace nimbra
