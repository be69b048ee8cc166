#pragma once

#include <string_view>

namespace nimbra {

/// Where a log line comes from: the class's source file, the line and the method of the call.
struct LogSite
{
    const char *Source;
    int Line;
    std::string_view Method;
};

/// Prints one line "DEBUG: <Unix time>:<source>:<line>:<method>(): <message>" on standard output,
/// in one piece. Any thread.
[[gnu::format(printf, 2, 3)]] void Log(const LogSite &site, const char *format, ...);

/// The place of a call: the calling method and its line. A helper that logs on behalf of its caller
/// takes one as its last argument, with Here() as the default.
struct CallPlace
{
    const char *Method;
    int Line;

    static constexpr CallPlace Here(const char *method = __builtin_FUNCTION(),
                                    int line = __builtin_LINE())
    {
        return {method, line};
    }

    /// The log site of this place in the source file `source`.
    [[nodiscard]] constexpr LogSite In(const char *source) const { return {source, Line, Method}; }
};

} // namespace nimbra

/// Logs from a member function of a class that names its source file in `kLogSource`.
#define NIMBRA_LOG(...)                                                                            \
    ::nimbra::Log(::nimbra::LogSite{kLogSource, __LINE__, __func__}, __VA_ARGS__)
