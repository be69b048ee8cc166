#include "protocol/Line.h"

#include <cstdio>

namespace nimbra {

void FormatLine(char (&text)[kLineSize], const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    FormatLineV(text, format, arguments);
    va_end(arguments);
}

void FormatLineV(char (&text)[kLineSize], const char *format, std::va_list arguments)
{
    const int length = std::vsnprintf(text, kLineSize, format, arguments);
    if (length >= static_cast<int>(kLineSize))
        text[kLineSize - 2] = '\n';
}

} // namespace nimbra
