#include <array>
#include <cstdio>
#include <ctime>
#include <limits>

#include <nimbra-client/PanelClock.h>

namespace nimbra::client {

namespace {

/// No time zone is farther from UTC.
constexpr int kFarthestMinutes = 15 * 60;
constexpr std::int64_t kSecondsOfDay = 86400;

/// Whether the panel finds the event in a search for events at `time` or later.
bool IsFound(Session &session, std::int32_t eventNo, std::int64_t time)
{
    Request request("GetEventLogEx");
    request.Number("EventNo", eventNo).RawText("FromTime", FormatTime(time), kNameBytes);
    return session.Execute(request.Number("Limit", 1)).Result == 0;
}

std::tm ToUtc(std::int64_t seconds)
{
    const auto time = static_cast<std::time_t>(seconds);
    std::tm utc = {};
    gmtime_r(&time, &utc);
    return utc;
}

bool IsWithin(const std::tm &time)
{
    return time.tm_mon >= 0 && time.tm_mon < 12 && time.tm_mday >= 1 && time.tm_hour >= 0 &&
           time.tm_hour < 24 && time.tm_min >= 0 && time.tm_min < 60 && time.tm_sec >= 0 &&
           time.tm_sec < 60;
}

} // namespace

std::optional<std::chrono::minutes> MeasureClockOffset(Session &session)
{
    Request request("GetEventLogEx");
    const Response newest = session.Execute(request.Number("Limit", 1));
    if (newest.Result != 0 || newest.Rows.empty())
        return std::nullopt;
    const std::int32_t eventNo = newest.Rows[0].Number("EventNo");
    const std::optional<std::int64_t> time = ParseTime(newest.Rows[0].Text("EventTime"));
    if (!time)
        return std::nullopt;
    // A search finds the event from its own time in the panel's zone, and not from a later time.
    // Most panels use UTC, which is tried first.
    if (IsFound(session, eventNo, *time) && !IsFound(session, eventNo, *time + 60))
        return std::chrono::minutes(0);
    int low = -kFarthestMinutes;
    int high = kFarthestMinutes;
    while (high - low > 1) {
        const int middle = low + (high - low) / 2;
        (IsFound(session, eventNo, *time + std::int64_t{middle} * 60) ? low : high) = middle;
    }
    return std::chrono::minutes(low);
}

std::optional<std::int64_t> ParseTime(std::string_view text)
{
    std::string whole(text);
    if (whole.find(':') != std::string::npos && whole.back() == 'Z')
        whole.pop_back();
    std::tm time = {};
    int dateEnd = 0;
    int minuteEnd = 0;
    int secondEnd = 0;
    char separator = ' ';
    const int count = std::sscanf(whole.c_str(), "%4d-%2d-%2d%n%c%2d:%2d%n:%2d%n", &time.tm_year,
                                  &time.tm_mon, &time.tm_mday, &dateEnd, &separator, &time.tm_hour,
                                  &time.tm_min, &minuteEnd, &time.tm_sec, &secondEnd);
    const int end = count == 3 ? dateEnd : count == 6 ? minuteEnd : count == 7 ? secondEnd : -1;
    if (end < 0 || static_cast<std::size_t>(end) != whole.size() ||
        (separator != ' ' && separator != 'T'))
        return std::nullopt;
    time.tm_year -= 1900;
    time.tm_mon -= 1;
    const std::tm given = time;
    const auto seconds = static_cast<std::int64_t>(timegm(&time));
    // A day that the month lacks becomes one of the next month.
    if (!IsWithin(given) || time.tm_mday != given.tm_mday ||
        seconds < std::numeric_limits<std::int32_t>::min() ||
        seconds > std::numeric_limits<std::int32_t>::max())
        return std::nullopt;
    return seconds;
}

std::string FormatTime(std::int64_t seconds)
{
    const std::tm utc = ToUtc(seconds);
    std::array<char, 80> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02d-%02d %02d:%02d:%02d", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
    return text.data();
}

std::string FormatDate(std::int64_t seconds)
{
    return FormatTime(seconds).substr(0, std::string_view("2026-01-31").size());
}

std::string ToPanelDay(const std::string &date, std::chrono::minutes offset)
{
    const std::optional<std::int64_t> seconds = ParseTime(date);
    // Local midnight is still the day before in UTC where clocks are ahead.
    if (!seconds || *seconds == 0 || offset.count() <= 0)
        return date;
    return FormatDate(*seconds + kSecondsOfDay);
}

} // namespace nimbra::client
