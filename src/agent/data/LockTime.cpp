#include "data/LockTime.h"

#include <algorithm>
#include <thread>

namespace nimbra {

namespace {

/// The object that holds the time of the calling thread.
thread_local LockTime *holder = nullptr;

} // namespace

LockTime::LockTime()
{
    if (holder == nullptr)
        holder = this;
}

LockTime::~LockTime()
{
    if (holder == this)
        holder = nullptr;
}

LockTime::Clock::duration LockTime::Left()
{
    return holder == nullptr ? Clock::duration::zero() : holder->left_;
}

void LockTime::SpendSince(Clock::time_point begin)
{
    if (holder != nullptr)
        holder->left_ = std::max(Clock::duration::zero(), holder->left_ - (Clock::now() - begin));
}

bool LockTime::Wait(int attempt)
{
    if (IsSpent())
        return false;
    // A short lock is noticed soon, a long one costs little.
    constexpr int kLongestStep = 5;
    const Clock::duration step = std::chrono::milliseconds(1 << std::min(attempt, kLongestStep));
    const Clock::time_point begin = Clock::now();
    std::this_thread::sleep_for(std::min(step, Left()));
    SpendSince(begin);
    // A statement must not succeed with nothing left: the rest of its request would fail at once.
    return !IsSpent();
}

} // namespace nimbra
