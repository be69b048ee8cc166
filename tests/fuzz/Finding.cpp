#include "fuzz/Finding.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

namespace nimbra::fuzz {

namespace {

/// Any bytes as text that a terminal shows.
std::string Shown(std::string_view bytes)
{
    std::string text;
    for (const char byte : bytes) {
        const auto code = static_cast<unsigned char>(byte);
        if (std::isprint(code) != 0 && byte != '\\') {
            text += byte;
            continue;
        }
        char escape[5];
        std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned>(code));
        text += escape;
    }
    return text;
}

} // namespace

void Report(std::string_view what)
{
    std::fprintf(stderr, "FINDING: %s\n", Shown(what).c_str());
    std::abort();
}

void Report(std::string_view what, std::string_view expected, std::string_view got)
{
    std::fprintf(stderr, "FINDING: %s: expected <%s>, got <%s>\n", Shown(what).c_str(),
                 Shown(expected).c_str(), Shown(got).c_str());
    std::abort();
}

} // namespace nimbra::fuzz
