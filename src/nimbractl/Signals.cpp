#include "nimbractl/Signals.h"

#include <poll.h>

namespace nimbra::ctl {

namespace {

volatile std::sig_atomic_t lastSignal = 0;

void Note(int signal)
{
    lastSignal = signal;
}

} // namespace

SignalCatcher::SignalCatcher(std::initializer_list<int> signals)
{
    sigemptyset(&caught_);
    for (const int signal : signals)
        sigaddset(&caught_, signal);
    static_cast<void>(Take());
    sigprocmask(SIG_BLOCK, &caught_, &before_);
    for (const int signal : signals) {
        struct sigaction action = {};
        action.sa_handler = Note;
        sigaction(signal, &action, &actions_[signal]);
    }
}

SignalCatcher::~SignalCatcher()
{
    for (const auto &[signal, action] : actions_)
        sigaction(signal, &action, nullptr);
    sigprocmask(SIG_SETMASK, &before_, nullptr);
}

bool SignalCatcher::Wait(int descriptor, int milliseconds) const
{
    // ppoll delivers no signal while the descriptor can be read.
    Open();
    Close();
    if (lastSignal != 0)
        return false;
    pollfd wait = {descriptor, POLLIN, 0};
    const timespec limit = {milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    return ppoll(&wait, 1, milliseconds < 0 ? nullptr : &limit, &before_) > 0;
}

int SignalCatcher::Take()
{
    const int signal = lastSignal;
    lastSignal = 0;
    return signal;
}

void SignalCatcher::PassOn(int signal) const
{
    struct sigaction mine = {};
    sigaction(signal, &actions_.at(signal), &mine);
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, signal);
    raise(signal);
    sigprocmask(SIG_UNBLOCK, &only, nullptr);
    sigprocmask(SIG_BLOCK, &only, nullptr);
    sigaction(signal, &mine, nullptr);
}

void SignalCatcher::Open() const
{
    sigprocmask(SIG_UNBLOCK, &caught_, nullptr);
}

void SignalCatcher::Close() const
{
    sigprocmask(SIG_BLOCK, &caught_, nullptr);
}

} // namespace nimbra::ctl
