// Replacements of calls that the agent makes very often, which give the same result in less time.

#include "base/Log.h"
#include "fuzz/Finding.h"
#include "fuzz/MessageModel.h"

#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace nimbra {

namespace {

using fuzz::Require;

/// Reads a text of a log line, so that the address sanitizer checks it. Returns the sum of its
/// bytes.
std::size_t ReadText(std::string_view text)
{
    std::size_t sum = 0;
    for (const char c : text)
        sum += static_cast<unsigned char>(c);
    return sum;
}

/// Formats a line as base/Log does.
[[gnu::format(printf, 2, 0)]] void FormatLine(const LogSite &site, const char *format,
                                              std::va_list arguments)
{
    constexpr std::size_t kLongest = 4096;
    std::array<char, kLongest> line;
    Require(std::snprintf(line.data(), line.size(), "%s:%d:%.*s(): ", site.Source, site.Line,
                          static_cast<int>(site.Method.size()), site.Method.data()) > 0,
            "the begin of a log line");
    const int count = std::vsnprintf(line.data(), line.size(), format, arguments);
    Require(count > 0 && static_cast<std::size_t>(count) < line.size(),
            "a log line that is empty or too long");
}

/// Whether the text, which is at least as long as the word, begins with it in any case.
bool BeginsWith(const char *text, std::string_view word)
{
    for (std::size_t i = 0; i < word.size(); ++i)
        if (fuzz::Lower(text[i]) != fuzz::Lower(word[i]))
            return false;
    return true;
}

} // namespace

/// Takes the place of base/Log: reads what a line would show, but prints nothing. One text of 64
/// is also formatted, always the same ones.
void Log(const LogSite &site, const char *format, ...)
{
    Require(site.Line > 0 && !site.Method.empty(), "a log line without a place");
    std::va_list arguments;
    va_start(arguments, format);
    std::va_list again;
    va_copy(again, arguments);
    std::size_t sum = ReadText(site.Source) + ReadText(site.Method);
    for (std::string_view rest = format; rest.find('%') != std::string_view::npos;) {
        rest.remove_prefix(rest.find('%') + 1);
        if (rest.starts_with("d")) {
            sum += static_cast<unsigned>(va_arg(arguments, int));
        } else if (rest.starts_with("s")) {
            sum += ReadText(va_arg(arguments, const char *));
        } else if (rest.starts_with(".*s")) {
            const auto size = static_cast<std::size_t>(va_arg(arguments, int));
            sum += ReadText({va_arg(arguments, const char *), size});
        } else {
            fuzz::Report("a form of log lines that is not known here", "", format);
        }
    }
    constexpr std::size_t kOneIn = 64;
    if (sum % kOneIn == 0)
        FormatLine(site, format, again);
    va_end(again);
    va_end(arguments);
}

} // namespace nimbra

// The linker prescribes the names of wrapping functions.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
/// Looks for the last byte of the word first: it is rare in a request, and it is no letter.
extern "C" char *__wrap_strcasestr(const char *text, const char *word)
{
    using namespace nimbra;
    const std::string_view wanted = word;
    fuzz::Require(!wanted.empty() && wanted.back() == '?', "a search for something else");
    const char *const end = text + std::strlen(text);
    const char *at = text;
    for (;;) {
        const void *const found =
            std::memchr(at, wanted.back(), static_cast<std::size_t>(end - at));
        if (found == nullptr)
            return nullptr;
        at = static_cast<const char *>(found) + 1;
        if (static_cast<std::size_t>(at - text) < wanted.size())
            continue;
        const char *const begin = at - wanted.size();
        if (BeginsWith(begin, wanted))
            return const_cast<char *>(begin); // NOLINT(cppcoreguidelines-pro-type-const-cast)
    }
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
