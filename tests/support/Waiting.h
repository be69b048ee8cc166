#pragma once

#include <chrono>
#include <functional>

namespace nimbra::test {

using std::chrono::milliseconds;
using std::chrono::seconds;

/// How long a test waits for what must happen soon; generous, so that a busy machine fails none.
inline constexpr milliseconds kSoon = seconds(20);

/// Measures wall-clock time from its making.
class Stopwatch
{
public:
    [[nodiscard]] double Seconds() const
    {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

/// Polls until `condition` holds; false when it does not within `limit`.
[[nodiscard]] bool WaitUntil(const std::function<bool()> &condition, milliseconds limit = kSoon);

} // namespace nimbra::test
