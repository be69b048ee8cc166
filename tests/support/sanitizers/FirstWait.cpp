// Linked into programs that take signals, in builds with the thread sanitizer only: waits once
// before main does.
//
// The sanitizer puts off a signal that finds a thread at work, and makes the room to note it when
// the thread first waits for something. In libtsan of GCC 12 a signal that comes while that room is
// being made is noted in room of its own, which is then replaced, and so lost: an agent that had
// just started ran on after SIGTERM, once in some hundred runs.

#include <unistd.h>

namespace {

[[gnu::constructor]] void WaitOnce()
{
    usleep(0);
}

} // namespace
