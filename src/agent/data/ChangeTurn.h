#pragma once

#include "base/Log.h"
#include "data/LockTime.h"

namespace nimbra {

/// The turn of one change among the changes of all sessions, held while the object lives: two
/// changes never hand out the same number. A change method makes it before it looks at the
/// database. One thread.
class ChangeTurn
{
public:
    /// Waits for the turn, from the request's time for locks. When that is spent logs
    /// "sqlite3_exec fail" with `logSource` and the calling method; IsHeld() is then false.
    explicit ChangeTurn(const char *logSource, CallPlace place = CallPlace::Here());
    ~ChangeTurn();
    ChangeTurn(const ChangeTurn &) = delete;
    ChangeTurn &operator=(const ChangeTurn &) = delete;

    [[nodiscard]] bool IsHeld() const { return isHeld_; }

private:
    LockTime lockTime_;
    bool isHeld_;
};

} // namespace nimbra
