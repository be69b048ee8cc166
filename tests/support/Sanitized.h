#pragma once

#include <string_view>

namespace nimbra::test {

/// Whether the programs under test run under the address or the thread sanitizer, which takes time
/// and memory. The tests themselves are built without.
inline constexpr bool kIsSanitized = !std::string_view(NIMBRA_SANITIZE).empty();
/// Whether that is the thread sanitizer, which adds a thread to each program.
inline constexpr bool kIsThreadSanitized = std::string_view(NIMBRA_SANITIZE) == "thread";

} // namespace nimbra::test
