#include "base/Thread.h"

#include <pthread.h>

namespace nimbra {

bool StartDetached(void *(*body)(void *), void *argument)
{
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0)
        return false;
    pthread_t thread;
    const bool started = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED) == 0 &&
                         pthread_attr_setstacksize(&attributes, kThreadStack) == 0 &&
                         pthread_create(&thread, &attributes, body, argument) == 0;
    pthread_attr_destroy(&attributes);
    return started;
}

} // namespace nimbra
