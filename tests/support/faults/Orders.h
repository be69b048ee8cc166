#pragma once

#include "support/faults/FaultBoard.h"

#include <ctime>

/// The library's side of the board, inside the agent. Any thread.
namespace nimbra::faults {

/// Counts a call at `point`: the error that it is to fail with, 0 when it is to be made.
[[nodiscard]] int TakeError(Point point);

/// The same for a function that reports in errno: whether the call is to fail, errno then set.
[[nodiscard]] bool ShallFail(Point point);

/// How far the agent's clock is ahead of the machine's.
[[nodiscard]] std::time_t ClockSeconds();

} // namespace nimbra::faults
