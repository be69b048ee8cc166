#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nimbra-client/Session.h>

namespace nimbra::client {

/// Panels write times in UTC and read them in their own time zone, without daylight saving. What
/// is read must be shifted by the zone's offset before it is sent back.

/// How far the panel's clock is ahead of UTC, found out with a few searches for the newest event.
/// Nothing when the log is empty.
[[nodiscard]] std::optional<std::chrono::minutes> MeasureClockOffset(Session &session);

/// Reads "2026-01-31", "2026-01-31 17:05" or "2026-01-31 17:05:00", with a blank or a "T" between,
/// as seconds since 1970. Nothing for anything else, and for times that the panel cannot keep
/// (it has 32 bits for them).
[[nodiscard]] std::optional<std::int64_t> ParseTime(std::string_view text);

/// Writes "2026-01-31 17:05:00", and "2026-01-31".
[[nodiscard]] std::string FormatTime(std::int64_t seconds);
[[nodiscard]] std::string FormatDate(std::int64_t seconds);

/// The day that a date of an answer was on the panel, where days begin at local midnight. A date
/// that was never given (1970-01-01) stays as it is.
[[nodiscard]] std::string ToPanelDay(const std::string &date, std::chrono::minutes offset);

} // namespace nimbra::client
