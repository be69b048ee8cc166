// Linked into programs that handle signals, only in builds with the thread sanitizer: waits once
// before main runs.
//
// The sanitizer delays a signal that arrives while a thread is running, and allocates the memory
// for it when the thread first waits for something. In libtsan of GCC 12 a signal that arrives
// during this allocation is stored in memory of its own, which is then replaced, so the signal is
// lost: an agent that had just started did not stop after SIGTERM, about once in some hundred runs.

#include <unistd.h>

namespace {

[[gnu::constructor]] void WaitOnce()
{
    usleep(0);
}

} // namespace
