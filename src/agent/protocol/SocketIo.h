#pragma once

#include <cstddef>
#include <vector>

namespace nimbra {

/// The socket routines of a session and of the cloud link. None of them blocks in a call: each
/// polls its socket once a millisecond and gives up 5 seconds (in whole seconds of the clock)
/// after it was called. A peer that closed the connection is not told from one that sends nothing.
/// Any thread; a socket is used by one thread at a time.

/// Sends a terminated text. Returns false on an error or at the limit; part of the text may then
/// have been sent. An empty text is never sent: it takes the whole limit and returns false.
bool SendMessage(int socket, const char *text);

/// Receives a line of at most `size` bytes and puts a terminator in place of its line feed. Takes
/// no byte of the next line. Returns false on an error, at the limit (what had come is lost) and
/// when `size` bytes hold no line feed.
[[nodiscard]] bool RecvMessage(int socket, char *buffer, std::size_t size);

/// Sends `count` bytes; returns how many were sent before an error or the limit.
std::size_t SendBuffer(int socket, const char *bytes, std::size_t count);

/// Receives `count` bytes into `buffer`, which grows as they arrive; returns how many came before
/// an error or the limit.
[[nodiscard]] std::size_t RecvBuffer(int socket, std::vector<char> *buffer, std::size_t count);

} // namespace nimbra
