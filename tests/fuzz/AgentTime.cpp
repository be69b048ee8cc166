#include "fuzz/AgentTime.h"

#include "base/Thread.h"
#include "base/Wait.h"

namespace nimbra {

namespace {

constexpr std::time_t kStart = 1'700'000'000;

fuzz::AgentEnvironment *theEnvironment = nullptr;
std::time_t theTime = kStart;

} // namespace

namespace fuzz {

AgentEnvironment::AgentEnvironment()
{
    theEnvironment = this;
    theTime = kStart;
}

std::time_t AgentNow()
{
    return theTime;
}

} // namespace fuzz

std::time_t ClockSecond()
{
    return theTime;
}

bool WaitForInput(int /*socket*/)
{
    if (!theEnvironment->OnSocketWait())
        ++theTime;
    // The change may concern the other direction, so the agent must check itself.
    return false;
}

bool WaitForOutput(int socket)
{
    return WaitForInput(socket);
}

bool WaitForConnection(int /*socket*/, int /*seconds*/)
{
    return true;
}

void WaitForNextSecond()
{
    PauseSeconds(1);
}

void PauseSeconds(unsigned seconds)
{
    theEnvironment->OnClockWait();
    theTime += seconds;
}

bool StartDetached(void *(*body)(void *), void *argument)
{
    if (theEnvironment->OnThread())
        body(argument);
    return true;
}

} // namespace nimbra

// The linker prescribes the names of wrapping functions.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" std::time_t __wrap_time(std::time_t *result)
{
    if (result != nullptr)
        *result = nimbra::theTime;
    return nimbra::theTime;
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
