#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace nimbra::fuzz {

/// What the values of a request mean, worked out a second time: by hand, from the rules of the
/// protocol, with none of the library calls that the agent uses.

/// The low 32 bits of the decimal number that a text begins with.
[[nodiscard]] std::int32_t NumberIn(std::string_view text);

/// A time that may be anything: the year lies where the C library's own arithmetic ends.
struct ModelTime
{
    bool IsCertain = true;
    std::int32_t Seconds = 0;
};

/// The seconds that a date text, or a date-time text, stands for where clocks show `ahead` seconds
/// more than UTC.
[[nodiscard]] ModelTime DateIn(std::string_view text, std::int64_t ahead = 0);
[[nodiscard]] ModelTime TimeIn(std::string_view text, std::int64_t ahead = 0);

/// "1970-01-01" and "1970-01-01 00:00:00" in UTC.
[[nodiscard]] std::string DateText(std::int32_t seconds);
[[nodiscard]] std::string TimeText(std::int32_t seconds);

} // namespace nimbra::fuzz
