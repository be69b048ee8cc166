#pragma once

#include <ctime>

namespace nimbra {

/// The system's clock and every way in which a thread of the agent waits for something outside it.
/// All limits are whole seconds of the clock, so a thread that waits wakes up when its socket is
/// ready or when the next second begins, and looks at its limits and its stop flag then. Only an
/// attempt to connect is one wait. A signal may end any wait early. Any thread.

/// The present second of the system's clock. Not time(): that one lags behind by up to a tick of
/// the kernel, and a thread that wakes up as a second begins would find the second before.
[[nodiscard]] std::time_t ClockSecond();

/// Waits until `socket` can be read, or until the clock's next second begins. Returns whether the
/// socket is ready. A socket whose peer has closed or that has failed is always ready.
[[nodiscard]] bool WaitForInput(int socket);

/// The same until `socket` can be written.
[[nodiscard]] bool WaitForOutput(int socket);

/// Waits until `socket` can be read or written, for at most so many seconds: the end of an attempt
/// to connect. Returns whether the socket is ready.
[[nodiscard]] bool WaitForConnection(int socket, int seconds);

/// Waits until the clock's next second begins.
void WaitForNextSecond();

/// Waits for so many seconds, whenever they begin.
void PauseSeconds(unsigned seconds);

} // namespace nimbra
