#include "base/Wait.h"

#include <unistd.h>

namespace nimbra {

void PauseMillisecond()
{
    usleep(1000);
}

void PauseSeconds(unsigned seconds)
{
    sleep(seconds);
}

} // namespace nimbra
