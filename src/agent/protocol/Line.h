#pragma once

#include <cstdarg>
#include <cstddef>

namespace nimbra {

/// Bound of a line: of one that is sent with its terminator, of one received with its line feed.
inline constexpr std::size_t kLineSize = 1024;

/// Formats a line into `text`. One that does not fit is cut, but still ends in a line feed, so
/// that the next line starts as one of its own. Any thread.
[[gnu::format(printf, 2, 0)]] void FormatLineV(char (&text)[kLineSize], const char *format,
                                               std::va_list arguments);

/// The same with the arguments given one by one.
[[gnu::format(printf, 2, 3)]] void FormatLine(char (&text)[kLineSize], const char *format, ...);

} // namespace nimbra
