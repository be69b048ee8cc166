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

void PauseMillisecond()
{
    if (!theWorld->OnMillisecond())
        ++theTime;
}

void PauseSeconds(unsigned seconds)
{
    theWorld->OnSeconds();
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
