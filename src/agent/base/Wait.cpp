#include "base/Wait.h"

#include <poll.h>
#include <unistd.h>

namespace nimbra {

namespace {

timespec Now()
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return now;
}

/// From 1 to 1000. Rounded up, so that a wait of this length ends in the next second.
int MillisecondsToNextSecond()
{
    constexpr long kSecond = 1'000'000'000;
    constexpr long kMillisecond = 1'000'000;
    return static_cast<int>((kSecond - Now().tv_nsec + kMillisecond - 1) / kMillisecond);
}

bool WaitForEvent(int socket, short event, int milliseconds)
{
    pollfd wait = {socket, event, 0};
    return poll(&wait, 1, milliseconds) > 0;
}

} // namespace

std::time_t ClockSecond()
{
    return Now().tv_sec;
}

bool WaitForInput(int socket)
{
    return WaitForEvent(socket, POLLIN, MillisecondsToNextSecond());
}

bool WaitForOutput(int socket)
{
    return WaitForEvent(socket, POLLOUT, MillisecondsToNextSecond());
}

bool WaitForConnection(int socket, int seconds)
{
    return WaitForEvent(socket, POLLIN | POLLOUT, seconds * 1000);
}

void WaitForNextSecond()
{
    poll(nullptr, 0, MillisecondsToNextSecond());
}

void PauseSeconds(unsigned seconds)
{
    sleep(seconds);
}

} // namespace nimbra
