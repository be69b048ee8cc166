#include "data/WriteLock.h"

#include <condition_variable>
#include <mutex>

namespace nimbra {

namespace {

// A std::timed_mutex would do, but the thread sanitizer does not see how it is locked.
std::mutex mutex;
std::condition_variable lockReleased;
bool isLockTaken = false;

bool TakeLock(LockTime::Clock::duration longest)
{
    std::unique_lock lock(mutex);
    if (!lockReleased.wait_for(lock, longest, [] { return !isLockTaken; }))
        return false;
    isLockTaken = true;
    return true;
}

} // namespace

WriteLock::WriteLock(const char *logSource, CallPlace place)
{
    const LockTime::Clock::time_point begin = LockTime::Clock::now();
    isHeld_ = TakeLock(LockTime::Left());
    LockTime::SpendSince(begin);
    if (!isHeld_)
        Log(place.In(logSource), "sqlite3_exec fail");
}

WriteLock::~WriteLock()
{
    if (!isHeld_)
        return;
    {
        const std::lock_guard lock(mutex);
        isLockTaken = false;
    }
    lockReleased.notify_one();
}

} // namespace nimbra
