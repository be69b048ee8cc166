#include "base/Log.h"

#include "base/Wait.h"

#include <cstdarg>
#include <cstdio>

namespace nimbra {

void Log(const LogSite &site, const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    flockfile(stdout);
    std::printf("DEBUG: %d:%s:%d:%.*s(): ", static_cast<int>(ClockSecond()), site.Source, site.Line,
                static_cast<int>(site.Method.size()), site.Method.data());
    std::vprintf(format, arguments);
    std::putchar('\n');
    funlockfile(stdout);
    va_end(arguments);
}

} // namespace nimbra
