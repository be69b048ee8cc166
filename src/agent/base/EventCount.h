#pragma once

#include <atomic>

namespace nimbra {

/// Counts events, so that threads can sleep until the next one. A thread that reads the count, then
/// looks for work and then waits past the count that it has read misses no event. What a thread did
/// before it added an event is visible to the threads that have waited for it. Any thread.
class EventCount
{
public:
    [[nodiscard]] int Get() const { return count_.load(std::memory_order_acquire); }
    /// Adds an event and wakes up every thread that waits.
    void Add()
    {
        count_.fetch_add(1);
        count_.notify_all();
    }
    /// Waits until the count is no longer `seen`, and returns it.
    [[nodiscard]] int WaitPast(int seen) const
    {
        count_.wait(seen);
        return Get();
    }

private:
    std::atomic<int> count_ = 0;
    static_assert(std::atomic<int>::is_always_lock_free);
};

} // namespace nimbra
