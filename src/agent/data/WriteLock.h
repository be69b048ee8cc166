#pragma once

#include "base/Log.h"
#include "data/LockTime.h"

namespace nimbra {

/// The lock of all sessions around changes, held while the object lives: two changes never assign
/// the same number. A change method makes it before it looks at the database. One thread.
class WriteLock
{
public:
    /// Waits for the lock, from the request's time for locks. When that is spent logs
    /// "sqlite3_exec fail" with `logSource` and the calling method; IsHeld() is then false.
    explicit WriteLock(const char *logSource, CallPlace place = CallPlace::Here());
    ~WriteLock();
    WriteLock(const WriteLock &) = delete;
    WriteLock &operator=(const WriteLock &) = delete;

    [[nodiscard]] bool IsHeld() const { return isHeld_; }

private:
    LockTime lockTime_;
    bool isHeld_;
};

} // namespace nimbra
