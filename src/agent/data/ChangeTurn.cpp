#include "data/ChangeTurn.h"

#include <condition_variable>
#include <mutex>

namespace nimbra {

namespace {

// A std::timed_mutex would do, but the thread sanitizer does not see how it is locked.
std::mutex mutex;
std::condition_variable turnEnded;
bool isTurnTaken = false;

bool TakeTurn(LockTime::Clock::duration longest)
{
    std::unique_lock lock(mutex);
    if (!turnEnded.wait_for(lock, longest, [] { return !isTurnTaken; }))
        return false;
    isTurnTaken = true;
    return true;
}

} // namespace

ChangeTurn::ChangeTurn(const char *logSource, CallPlace place)
{
    const LockTime::Clock::time_point begin = LockTime::Clock::now();
    isHeld_ = TakeTurn(LockTime::Left());
    LockTime::SpendSince(begin);
    if (!isHeld_)
        Log(place.In(logSource), "sqlite3_exec fail");
}

ChangeTurn::~ChangeTurn()
{
    if (!isHeld_)
        return;
    {
        const std::lock_guard lock(mutex);
        isTurnTaken = false;
    }
    turnEnded.notify_one();
}

} // namespace nimbra
