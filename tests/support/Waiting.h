#pragma once

#include <chrono>
#include <functional>

namespace nimbra::test {

using std::chrono::milliseconds;
using std::chrono::seconds;

/// The time that a test waits for something that must happen soon: long enough for a busy machine.
inline constexpr milliseconds kSoon = seconds(20);

/// Measures the time since its creation.
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

/// Polls until `condition` holds; false if it does not within `limit`.
[[nodiscard]] bool WaitUntil(const std::function<bool()> &condition, milliseconds limit = kSoon);

} // namespace nimbra::test
