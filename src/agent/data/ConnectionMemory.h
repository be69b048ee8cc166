#pragma once

namespace nimbra {

/// Memory for the allocations that SQLite makes while a thread has connections open, up to the
/// pages of its cache. They come from a pool that only this thread uses, so they need no lock; when
/// the last connection of the thread is closed, the pool keeps little and serves the connections of
/// other threads. The allocator of the C library would keep some of each thread's freed blocks for
/// that thread, which adds up over many sessions. One object for each connection, made before it is
/// opened and destroyed after it is closed. One object, one thread.
class ConnectionMemory
{
public:
    /// Has SQLite take its memory this way. Main thread, before SQLite's first use.
    static void Install();

    ConnectionMemory();
    ~ConnectionMemory();
    ConnectionMemory(const ConnectionMemory &) = delete;
    ConnectionMemory &operator=(const ConnectionMemory &) = delete;
};

} // namespace nimbra
