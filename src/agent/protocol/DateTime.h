#pragma once

#include "base/FixedText.h"

#include <cstdint>

namespace nimbra {

/// Conversions between date/time text and 32-bit seconds since 1970. Text is read as local time
/// and written as UTC: a value that is read and written back moves by the zone's offset, and
/// clients rely on it. Any thread.

using TimeText = FixedText<19>;

/// Reads "year-month-day hour:minute:second" as local time without daylight saving. What the text
/// lacks counts as 0 (a missing day is the last of the month before). Stores the result, -1 when no
/// such time exists, and returns it too; the agent uses what is stored.
std::int32_t StringToTime(const char *text, std::int32_t *seconds);

/// Reads "year-month-day" as local midnight; as StringToTime otherwise.
std::int32_t StringToDate(const char *text, std::int32_t *seconds);

/// Writes "2026-11-21 08:57:00", in UTC.
[[nodiscard]] TimeText TimeToString(std::int32_t seconds);

/// Writes "2026-11-21", in UTC.
[[nodiscard]] TimeText DateToString(std::int32_t seconds);

} // namespace nimbra
