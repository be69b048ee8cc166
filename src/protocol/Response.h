#pragma once

#include <cstdarg>
#include <cstddef>

namespace nimbra {

/// Bound of a line that is formatted to be sent, its terminator included.
inline constexpr std::size_t kResponseSize = 1024;

/// Formats a line into `text`. One that does not fit is cut, but still ends in a line feed, so
/// that the next line starts as one of its own. Any thread.
[[gnu::format(printf, 2, 0)]] void FormatResponseList(char (&text)[kResponseSize],
                                                      const char *format, std::va_list arguments);

/// The same with the arguments given one by one.
[[gnu::format(printf, 2, 3)]] void FormatResponse(char (&text)[kResponseSize], const char *format,
                                                  ...);

} // namespace nimbra
