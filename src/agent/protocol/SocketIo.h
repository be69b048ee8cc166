#pragma once

#include <cstddef>
#include <vector>

namespace nimbra {

/// The socket routines of a session and of the cloud link. They wait until the socket is ready, and
/// give up 5 seconds (whole seconds of the clock) after the call. A peer that has closed the
/// connection is treated like one that sends nothing. Any thread; a socket is used by one thread at
/// a time.

/// Sends a terminated text. Returns false on an error or at the limit; part of the text may then
/// have been sent. An empty text is never sent: it takes the whole limit and returns false.
bool SendMessage(int socket, const char *text);

/// Receives a line of at most `size` bytes and puts a terminator in place of its line feed. Takes
/// no byte of the next line. Returns false on an error, at the limit (the bytes received are lost)
/// and when `size` bytes hold no line feed. `*hasFailed`, if given, then says whether it was an
/// error of the socket, which the next call may meet at once.
[[nodiscard]] bool RecvMessage(int socket, char *buffer, std::size_t size,
                               bool *hasFailed = nullptr);

/// Sends `count` bytes; returns how many were sent before an error or the limit.
std::size_t SendBuffer(int socket, const char *bytes, std::size_t count);

/// Receives `count` bytes into `buffer`, which grows as they arrive; returns how many came before
/// an error or the limit.
[[nodiscard]] std::size_t RecvBuffer(int socket, std::vector<char> *buffer, std::size_t count);

} // namespace nimbra
