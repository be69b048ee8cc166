#pragma once

#include <chrono>

namespace nimbra {

/// The time for which a request may wait for databases that the panel has locked, and for
/// WriteLock: 3 seconds in all. When they are spent, every further statement of the request
/// fails at once. The object that a thread makes first holds the time of all that the thread makes
/// while it lives: a session makes one for each request. One thread.
class LockTime
{
public:
    using Clock = std::chrono::steady_clock;

    LockTime();
    ~LockTime();
    LockTime(const LockTime &) = delete;
    LockTime &operator=(const LockTime &) = delete;

    /// What is left of the thread's time; 0 when it is spent, and while no object lives.
    [[nodiscard]] static Clock::duration Left();
    [[nodiscard]] static bool IsSpent() { return Left() == Clock::duration::zero(); }
    /// Counts the time since `begin` as spent.
    static void SpendSince(Clock::time_point begin);
    /// Waits a little for a lock that was met for the `attempt`th time, from 0 on. False when the
    /// time is spent, before the wait or by it.
    [[nodiscard]] static bool Wait(int attempt);

private:
    Clock::duration left_ = std::chrono::seconds(3);
};

} // namespace nimbra
