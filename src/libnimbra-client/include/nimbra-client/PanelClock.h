#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nimbra-client/Session.h>

namespace nimbra::client {

// A panel sends times in UTC and reads times in its own time zone, without daylight saving time. A
// time of a response is shifted by the clock offset before it is sent back.

/// Measures the clock offset: how far the panel's time zone is ahead of UTC, from -15 to +15 hours.
/// Sends up to 13 searches for the newest event. Returns nothing when the event log is empty or
/// cannot be read. Throws what Session::Execute throws. The thread of the session.
[[nodiscard]] std::optional<std::chrono::minutes> MeasureClockOffset(Session &session);

/// Reads "2026-01-31", "2026-01-31 17:05" or "2026-01-31 17:05:00", with a blank or a "T" between
/// date and time and an optional "Z" after the time, as seconds since 1970-01-01 00:00:00 UTC.
/// Returns nothing for any other text and for a time outside the panel's 32 bits. Any thread.
[[nodiscard]] std::optional<std::int64_t> ParseTime(std::string_view text);

/// Writes seconds since 1970-01-01 00:00:00 UTC as "2026-01-31 17:05:00". Any thread.
[[nodiscard]] std::string FormatTime(std::int64_t seconds);
/// Writes the day of such a time as "2026-01-31". Any thread.
[[nodiscard]] std::string FormatDate(std::int64_t seconds);

/// Converts a date of a response to the day of the panel's calendar, where days begin at local
/// midnight. 1970-01-01, the date of a record without a date, and a text that is not a date are
/// returned unchanged. Any thread.
[[nodiscard]] std::string ToPanelDay(const std::string &date, std::chrono::minutes offset);

} // namespace nimbra::client
