#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <optional>
#include <string>

namespace nimbra::ctl {

/// The time zone of the times of the command line and of the output.
enum class TimeZone
{
    Utc,
    Local ///< of this machine
};

/// The part of a day that a date without a time means.
enum class DayPart
{
    Begin,
    End
};

/// Reads a time of the command line as seconds since 1970-01-01 00:00:00 UTC: "2026-01-31 17:05:00"
/// with a blank or a "T", without seconds, or with a "Z" for UTC; a day ("2026-01-31", "today",
/// "yesterday"), of which it returns the given part; or a time before now ("-90m", "-1h", "-2d").
/// Returns nothing for any other text.
[[nodiscard]] std::optional<std::int64_t> ParseTimeArgument(const std::string &text, TimeZone zone,
                                                            DayPart part);

/// For Option::check: checks that ParseTimeArgument reads the text.
[[nodiscard]] CLI::Validator IsTime();

/// Converts a time of a response, in UTC, to the time zone of this machine. Any other text is
/// returned unchanged.
[[nodiscard]] std::string ToLocalTime(const std::string &time);

} // namespace nimbra::ctl
