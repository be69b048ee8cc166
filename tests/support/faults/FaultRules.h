#pragma once

#include "support/faults/SharedState.h"

#include <ctime>

/// The fault library's access to the shared state, inside the agent. Any thread.
namespace nimbra::faults {

/// Counts a call at `point`. Returns the error that the call must fail with, 0 if it must be made.
[[nodiscard]] int TakeError(Point point);

/// The same for a function that reports its errors in errno: true, with errno set, if the call must
/// fail.
[[nodiscard]] bool ShallFail(Point point);

/// Keeps the text of a statement, while there is space for it.
void RecordStatement(const char *sql);

/// The agent's clock minus the machine's.
[[nodiscard]] std::time_t ClockSeconds();

} // namespace nimbra::faults
