#pragma once

#include <string>
#include <string_view>

namespace nimbra::fuzz {

/// Ends the process: the fuzzer then keeps the input as a finding. The message goes to the fuzzer's
/// output, "what: expected <...>, got <...>".
[[noreturn]] void Report(std::string_view what);
[[noreturn]] void Report(std::string_view what, std::string_view expected, std::string_view got);

/// A property that must hold whatever the input.
inline void Require(bool holds, std::string_view what)
{
    if (!holds)
        Report(what);
}
inline void RequireEqual(std::string_view what, std::string_view expected, std::string_view got)
{
    if (expected != got)
        Report(what, expected, got);
}
inline void RequireEqual(std::string_view what, long long expected, long long got)
{
    if (expected != got)
        Report(what, std::to_string(expected), std::to_string(got));
}

} // namespace nimbra::fuzz
