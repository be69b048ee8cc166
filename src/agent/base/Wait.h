#pragma once

namespace nimbra {

/// How the agent waits: every polling loop of it pauses here. A signal may cut a pause short.

/// Pauses the calling thread for one millisecond: polling of a socket or a session.
void PauseMillisecond();

/// Pauses the calling thread for `seconds`: polling of flags and of slow events.
void PauseSeconds(unsigned seconds);

} // namespace nimbra
