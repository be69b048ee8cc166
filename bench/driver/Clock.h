#pragma once

#include <chrono>
#include <thread>

namespace nimbra::bench {

/// Seconds since an arbitrary moment.
[[nodiscard]] inline double Now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

/// Pauses the calling thread; returns at once when `seconds` is not positive.
inline void Sleep(double seconds)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

} // namespace nimbra::bench
