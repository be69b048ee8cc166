#pragma once

#include <csignal>
#include <initializer_list>
#include <map>

namespace nimbra::ctl {

/// Records signals while the object lives, instead of their default actions. They are delivered
/// only within Wait, so that none is missed. One object at a time, in the main thread.
class SignalCatcher
{
public:
    explicit SignalCatcher(std::initializer_list<int> signals);
    ~SignalCatcher();
    SignalCatcher(const SignalCatcher &) = delete;
    SignalCatcher &operator=(const SignalCatcher &) = delete;

    /// Waits until `descriptor` can be read, a signal arrives, or the time is over (-1: no limit).
    /// Returns whether it can be read.
    [[nodiscard]] bool Wait(int descriptor, int milliseconds) const;

    /// Returns the signal that arrived since the last call; 0 if none.
    [[nodiscard]] static int Take();

    /// Runs the action that a signal has without this object; most end the program.
    void PassOn(int signal) const;

    /// Delivers signals at any time, or only within Wait again.
    void Open() const;
    void Close() const;

private:
    sigset_t caught_ = {};
    sigset_t before_ = {};
    std::map<int, struct sigaction> actions_;
};

} // namespace nimbra::ctl
