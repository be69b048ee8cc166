#include "data/ChangeTurn.h"

namespace nimbra {

namespace {

std::timed_mutex changes;

} // namespace

ChangeTurn::ChangeTurn(const char *logSource, CallPlace place) : lock_(changes, std::defer_lock)
{
    const LockTime::Clock::time_point begin = LockTime::Clock::now();
    const bool isHeld = lock_.try_lock_for(LockTime::Left());
    LockTime::SpendSince(begin);
    if (!isHeld)
        Log(place.In(logSource), "sqlite3_exec fail");
}

} // namespace nimbra
