#include "protocol/DateTime.h"

#include <cstdio>
#include <ctime>

namespace nimbra {

namespace {

static_assert(sizeof(std::time_t) == 8, "dates after 2038 are computed on 32-bit boards too");

/// Numbers of a date/time text in its order; read 64 bits wide, so that all boards cut them alike.
struct TextFields
{
    long long Year = 0;
    long long Month = 0;
    long long Day = 0;
    long long Hour = 0;
    long long Minute = 0;
    long long Second = 0;
};

/// The low 32 bits of `number` less `origin`.
int Low32(long long number, unsigned origin = 0)
{
    return static_cast<int>(static_cast<unsigned>(number) - origin);
}

std::int32_t ToSeconds(const TextFields &fields, std::int32_t *seconds)
{
    std::tm local = {};
    local.tm_year = Low32(fields.Year, 1900);
    local.tm_mon = Low32(fields.Month, 1);
    local.tm_mday = Low32(fields.Day);
    local.tm_hour = Low32(fields.Hour);
    local.tm_min = Low32(fields.Minute);
    local.tm_sec = Low32(fields.Second);
    *seconds = static_cast<std::int32_t>(std::mktime(&local));
    return *seconds;
}

std::tm InUtc(std::int32_t seconds)
{
    const std::time_t time = seconds;
    std::tm utc = {};
    gmtime_r(&time, &utc);
    return utc;
}

} // namespace

// How many fields the text held is not asked: those it lacks are 0, and clients rely on it.

std::int32_t StringToTime(const char *text, std::int32_t *seconds)
{
    TextFields t;
    static_cast<void>(std::sscanf(text, "%lld-%lld-%lld %lld:%lld:%lld", &t.Year, &t.Month, &t.Day,
                                  &t.Hour, &t.Minute, &t.Second));
    return ToSeconds(t, seconds);
}

std::int32_t StringToDate(const char *text, std::int32_t *seconds)
{
    TextFields t;
    static_cast<void>(std::sscanf(text, "%lld-%lld-%lld", &t.Year, &t.Month, &t.Day));
    return ToSeconds(t, seconds);
}

TimeText TimeToString(std::int32_t seconds)
{
    const std::tm utc = InUtc(seconds);
    TimeText text;
    text.Format("%04d-%02d-%02d %02d:%02d:%02d", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                utc.tm_hour, utc.tm_min, utc.tm_sec);
    return text;
}

TimeText DateToString(std::int32_t seconds)
{
    const std::tm utc = InUtc(seconds);
    TimeText text;
    text.Format("%04d-%02d-%02d", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday);
    return text;
}

} // namespace nimbra
