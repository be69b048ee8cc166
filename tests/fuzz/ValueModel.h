#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace nimbra::fuzz {

/// The values of a request, parsed by a second implementation of the protocol's rules that uses
/// none of the library calls of the agent.

/// The low 32 bits of the decimal number at the start of a text.
[[nodiscard]] std::int32_t NumberIn(std::string_view text);

/// A time. It is uncertain if its year is near the limits of the C library's arithmetic.
struct ModelTime
{
    bool IsCertain = true;
    std::int32_t Seconds = 0;
};

/// The seconds of a date text, or a date-time text, in a zone that is `ahead` seconds ahead of UTC.
[[nodiscard]] ModelTime DateIn(std::string_view text, std::int64_t ahead = 0);
[[nodiscard]] ModelTime TimeIn(std::string_view text, std::int64_t ahead = 0);

/// "1970-01-01" and "1970-01-01 00:00:00" in UTC.
[[nodiscard]] std::string DateText(std::int32_t seconds);
[[nodiscard]] std::string TimeText(std::int32_t seconds);

} // namespace nimbra::fuzz
