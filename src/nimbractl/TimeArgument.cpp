#include "nimbractl/TimeArgument.h"

#include <ctime>
#include <utility>

#include <nimbra-client/PanelClock.h>
#include <nimbra-client/Record.h>

namespace nimbra::ctl {

namespace {

constexpr std::int64_t kSecondsOfDay = 86400;

/// Returns how far the local time is ahead of UTC at a time in UTC.
std::int64_t LocalOffset(std::int64_t seconds)
{
    const auto time = static_cast<std::time_t>(seconds);
    std::tm local = {};
    localtime_r(&time, &local);
    return local.tm_gmtoff;
}

/// Converts a local time, written as if it were UTC, to UTC.
std::int64_t FromLocal(std::int64_t seconds)
{
    // The offset is that of the result, which differs where daylight saving time begins or ends.
    const std::int64_t guess = seconds - LocalOffset(seconds);
    return seconds - LocalOffset(guess);
}

/// Reads "-90m", "-1h" or "-2d" as seconds.
std::optional<std::int64_t> ParseAge(const std::string &text)
{
    if (text.size() < 3 || text[0] != '-')
        return std::nullopt;
    const std::optional<std::int32_t> count =
        client::ParseNumber(std::string_view(text).substr(1, text.size() - 2));
    if (!count || *count < 0)
        return std::nullopt;
    switch (text.back()) {
    case 'm':
        return std::int64_t{60} * *count;
    case 'h':
        return std::int64_t{3600} * *count;
    case 'd':
        return kSecondsOfDay * *count;
    default:
        return std::nullopt;
    }
}

/// Returns the text, or the date that "today" and "yesterday" mean.
std::string ResolveDay(const std::string &text, std::int64_t now, TimeZone zone)
{
    if (text != "today" && text != "yesterday")
        return text;
    const std::int64_t shown = now + (zone == TimeZone::Local ? LocalOffset(now) : 0);
    return client::FormatDate(shown - (text == "yesterday" ? kSecondsOfDay : 0));
}

} // namespace

std::optional<std::int64_t> ParseTimeArgument(const std::string &text, TimeZone zone, DayPart part)
{
    const std::int64_t now = std::time(nullptr);
    if (const std::optional<std::int64_t> age = ParseAge(text))
        return std::in_range<std::int32_t>(now - *age) ? std::optional(now - *age) : std::nullopt;
    const std::string resolved = ResolveDay(text, now, zone);
    std::optional<std::int64_t> seconds = client::ParseTime(resolved);
    if (!seconds)
        return std::nullopt;
    if (resolved.find(':') == std::string::npos && part == DayPart::End)
        *seconds += kSecondsOfDay - 1;
    const bool isUtc = zone == TimeZone::Utc || resolved.back() == 'Z';
    return isUtc ? *seconds : FromLocal(*seconds);
}

CLI::Validator IsTime()
{
    return {[](const std::string &text) {
                return ParseTimeArgument(text, TimeZone::Utc, DayPart::Begin)
                           ? std::string()
                           : "\"" + text + R"(" is no time such as "2026-01-31 17:05:00", )" +
                                 "2026-01-31, today or -2h";
            },
            ""};
}

std::string ToLocalTime(const std::string &time)
{
    const std::optional<std::int64_t> seconds = client::ParseTime(time);
    return seconds ? client::FormatTime(*seconds + LocalOffset(*seconds)) : time;
}

} // namespace nimbra::ctl
