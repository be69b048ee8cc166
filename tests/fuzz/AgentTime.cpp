#include "fuzz/AgentTime.h"

#include "base/Thread.h"
#include "base/Wait.h"

namespace nimbra {

namespace {

constexpr std::time_t kStart = 1'700'000'000;

fuzz::AgentWorld *theWorld = nullptr;
std::time_t theTime = kStart;

} // namespace

namespace fuzz {

AgentWorld::AgentWorld()
{
    theWorld = this;
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
    if (!theWorld->OnSocketWait())
        ++theTime;
    // What is new may concern the other direction: the agent must look itself.
    return false;
}

bool WaitForOutput(int socket)
{
    return WaitForInput(socket);
}

void WaitForNextSecond()
{
    PauseSeconds(1);
}

void PauseSeconds(unsigned seconds)
{
    theWorld->OnClockWait();
    theTime += seconds;
}

bool StartDetached(void *(*body)(void *), void *argument)
{
    if (theWorld->OnThread())
        body(argument);
    return true;
}

} // namespace nimbra

// The names are the linker's: what wraps a function is called so.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" std::time_t __wrap_time(std::time_t *result)
{
    if (result != nullptr)
        *result = nimbra::theTime;
    return nimbra::theTime;
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
