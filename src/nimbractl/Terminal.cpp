#include "nimbractl/Terminal.h"

#include <cstdlib>
#include <cstring>

#include <nimbra-client/Record.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace nimbra::ctl {

bool IsOutputTerminal()
{
    return isatty(STDOUT_FILENO) != 0;
}

bool CanMoveCursor(int descriptor)
{
    const char *terminal = std::getenv("TERM");
    return isatty(descriptor) != 0 && terminal != nullptr && std::strcmp(terminal, "dumb") != 0;
}

TerminalSize GetTerminalSize()
{
    TerminalSize size{80, 24};
    winsize window = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) == 0) {
        size.Columns = window.ws_col != 0 ? window.ws_col : size.Columns;
        size.Rows = window.ws_row != 0 ? window.ws_row : size.Rows;
    }
    const char *columns = std::getenv("COLUMNS");
    if (columns != nullptr)
        if (const auto number = client::ParseNumber(columns); number && *number > 0)
            size.Columns = static_cast<std::size_t>(*number);
    return size;
}

} // namespace nimbra::ctl
