#include "protocol/Response.h"

#include <cstdio>

namespace nimbra {

void FormatResponse(char (&text)[kResponseSize], const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    FormatResponseList(text, format, arguments);
    va_end(arguments);
}

void FormatResponseList(char (&text)[kResponseSize], const char *format, std::va_list arguments)
{
    const int length = std::vsnprintf(text, kResponseSize, format, arguments);
    if (length >= static_cast<int>(kResponseSize))
        text[kResponseSize - 2] = '\n';
}

} // namespace nimbra
