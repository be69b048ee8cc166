#pragma once

#include <cstddef>

namespace nimbra::ctl {

/// The size of a terminal in characters.
struct TerminalSize
{
    std::size_t Columns;
    std::size_t Rows;
};

/// Whether standard output is a terminal.
[[nodiscard]] bool IsOutputTerminal();

/// Whether the terminal on this descriptor understands control sequences. False for other files.
[[nodiscard]] bool CanMoveCursor(int descriptor);

/// Returns the size of the terminal on standard output. The environment variable COLUMNS overrides
/// its width. 80 by 24 when neither is known.
[[nodiscard]] TerminalSize GetTerminalSize();

} // namespace nimbra::ctl
