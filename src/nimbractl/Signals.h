#pragma once

#include <csignal>
#include <initializer_list>
#include <map>

namespace nimbra::ctl {

/// Takes signals down instead of being ended by them, while the object lives: they are let in only
/// within Wait, so that none is missed. One object at a time, in the main thread.
class SignalCatcher
{
public:
    explicit SignalCatcher(std::initializer_list<int> signals);
    ~SignalCatcher();
    SignalCatcher(const SignalCatcher &) = delete;
    SignalCatcher &operator=(const SignalCatcher &) = delete;

    /// Waits until `descriptor` can be read, a signal came, or the time is over (-1: never is).
    /// Returns whether it can be read.
    [[nodiscard]] bool Wait(int descriptor, int milliseconds) const;

    /// The signal that came since the last call; 0 if none.
    [[nodiscard]] static int Take();

    /// Does with a signal what would have been done without this object; most end the program.
    void PassOn(int signal) const;

    /// Lets the signals in at any time, or only within Wait again.
    void Open() const;
    void Close() const;

private:
    sigset_t caught_ = {};
    sigset_t before_ = {};
    std::map<int, struct sigaction> actions_;
};

} // namespace nimbra::ctl
