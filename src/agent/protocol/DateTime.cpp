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

std::int32_t ToSeconds(const TextFields &fields)
{
    std::tm local = {};
    local.tm_year = Low32(fields.Year, 1900);
    local.tm_mon = Low32(fields.Month, 1);
    local.tm_mday = Low32(fields.Day);
    local.tm_hour = Low32(fields.Hour);
    local.tm_min = Low32(fields.Minute);
    local.tm_sec = Low32(fields.Second);
    return static_cast<std::int32_t>(std::mktime(&local));
}

std::tm InUtc(std::int32_t seconds)
{
    const std::time_t time = seconds;
    std::tm utc = {};
    gmtime_r(&time, &utc);
    return utc;
}

/// Replaces so many digits. Every row of a list of events has a time, and printf takes five times
/// as long to write one.
void PutNumber(int number, std::size_t place, std::size_t digits, TimeText *text)
{
    for (std::size_t i = digits; i > 0; --i, number /= 10)
        text->Set(place + i - 1, static_cast<char>('0' + number % 10));
}

void PutDate(const std::tm &date, TimeText *text)
{
    PutNumber(date.tm_year + 1900, 0, 4, text);
    PutNumber(date.tm_mon + 1, 5, 2, text);
    PutNumber(date.tm_mday, 8, 2, text);
}

} // namespace

// How many fields the text held is not asked: those it lacks are 0, and clients rely on it.

std::int32_t StringToTime(const char *text, std::int32_t *seconds)
{
    TextFields t;
    static_cast<void>(std::sscanf(text, "%lld-%lld-%lld %lld:%lld:%lld", &t.Year, &t.Month, &t.Day,
                                  &t.Hour, &t.Minute, &t.Second));
    *seconds = ToSeconds(t);
    return *seconds;
}

std::int32_t StringToDate(const char *text, std::int32_t *seconds)
{
    TextFields t;
    static_cast<void>(std::sscanf(text, "%lld-%lld-%lld", &t.Year, &t.Month, &t.Day));
    *seconds = ToSeconds(t);
    return *seconds;
}

TimeText TimeToString(std::int32_t seconds)
{
    const std::tm utc = InUtc(seconds);
    TimeText text("0000-00-00 00:00:00");
    PutDate(utc, &text);
    PutNumber(utc.tm_hour, 11, 2, &text);
    PutNumber(utc.tm_min, 14, 2, &text);
    PutNumber(utc.tm_sec, 17, 2, &text);
    return text;
}

TimeText DateToString(std::int32_t seconds)
{
    TimeText text("0000-00-00");
    PutDate(InUtc(seconds), &text);
    return text;
}

} // namespace nimbra
