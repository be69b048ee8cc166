#include "protocol/DateTime.h"

#include "support/TimeZone.h"

#include <climits>
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>

namespace nimbra {
namespace {

using test::kEasternZone;
using test::kWesternZone;
using test::TimeZone;

constexpr char kUtc[] = "UTC0";
constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kDay = 24 * kHour;

/// Days from 1970-01-01 to a day of the Gregorian calendar, counted in eras of 400 years. The
/// month may be any number: months beyond a year continue into the next.
std::int64_t DaysFromCivil(std::int64_t year, std::int64_t month, std::int64_t day)
{
    // A year that begins in March has its leap day at its end.
    std::int64_t months = year * 12 + (month - 1) - 2;
    const std::int64_t marchYear = months >= 0 ? months / 12 : (months - 11) / 12;
    months -= marchYear * 12;
    const std::int64_t era = (marchYear >= 0 ? marchYear : marchYear - 399) / 400;
    const std::int64_t yearOfEra = marchYear - era * 400;
    const std::int64_t dayOfEra =
        yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + (153 * months + 2) / 5;
    return era * 146097 + dayOfEra - 719468 + (day - 1);
}

/// Seconds from 1970 to a time in UTC.
std::int64_t Utc(std::int64_t year, std::int64_t month, std::int64_t day, std::int64_t hour = 0,
                 std::int64_t minute = 0, std::int64_t second = 0)
{
    return DaysFromCivil(year, month, day) * kDay + hour * kHour + minute * 60 + second;
}

std::int32_t Low32(std::int64_t number)
{
    return static_cast<std::int32_t>(static_cast<std::uint64_t>(number));
}

/// Expects that the conversion stores the same result that it returns.
std::int32_t Time(const std::string &text)
{
    std::int32_t seconds = 0x5EC0;
    EXPECT_EQ(StringToTime(text.c_str(), &seconds), seconds);
    return seconds;
}

std::int32_t Date(const std::string &text)
{
    std::int32_t seconds = 0x5EC0;
    EXPECT_EQ(StringToDate(text.c_str(), &seconds), seconds);
    return seconds;
}

TEST(DateTime, ReferenceCalendarMatchesKnownDates)
{
    EXPECT_EQ(Utc(1970, 1, 1), 0);
    EXPECT_EQ(Utc(2001, 9, 9, 1, 46, 40), 1000000000);
    EXPECT_EQ(Utc(2038, 1, 19, 3, 14, 7), INT_MAX);
    EXPECT_EQ(Utc(1901, 12, 13, 20, 45, 52), INT_MIN);
}

TEST(DateTime, ReadsDateAndTime)
{
    const TimeZone zone(kUtc);
    EXPECT_EQ(Time("1970-01-01 00:00:00"), 0);
    EXPECT_EQ(Time("2001-09-09 01:46:40"), 1000000000);
    EXPECT_EQ(Time("2026-11-21 08:57:00"), Utc(2026, 11, 21, 8, 57, 0));
    EXPECT_EQ(Time("2024-02-29 23:59:59"), Utc(2024, 2, 29, 23, 59, 59));
}

TEST(DateTime, ReadsDateAsMidnight)
{
    const TimeZone zone(kUtc);
    EXPECT_EQ(Date("1970-01-01"), 0);
    EXPECT_EQ(Date("2026-11-21"), Utc(2026, 11, 21));
    EXPECT_EQ(Date("2026-11-21 08:57:00"), Utc(2026, 11, 21));
}

TEST(DateTime, DoesNotRequireLeadingZeros)
{
    const TimeZone zone(kUtc);
    EXPECT_EQ(Time("2026-1-2 3:4:5"), Utc(2026, 1, 2, 3, 4, 5));
    EXPECT_EQ(Time("02026-001-002 003:004:005"), Utc(2026, 1, 2, 3, 4, 5));
    EXPECT_EQ(Time("02026-08-09 08:09:010"), Utc(2026, 8, 9, 8, 9, 10));
    EXPECT_EQ(Date("02026-008-0010"), Utc(2026, 8, 10));
    EXPECT_EQ(Date("2026-8-9"), Utc(2026, 8, 9));
    EXPECT_EQ(Time("  2026-  1-  2    3:  4:  5"), Utc(2026, 1, 2, 3, 4, 5));
    EXPECT_EQ(Time("2026-01-0203:04:05"), Utc(2026, 1, 203))
        << "the day has as many digits as follow";
}

TEST(DateTime, IgnoresTextAfterLastField)
{
    const TimeZone zone(kUtc);
    EXPECT_EQ(Time("2026-11-21 08:57:00\r"), Utc(2026, 11, 21, 8, 57, 0));
    EXPECT_EQ(Time("2026-11-21 08:57:00.999Z"), Utc(2026, 11, 21, 8, 57, 0));
    EXPECT_EQ(Date("2026-11-21x"), Utc(2026, 11, 21));
}

TEST(DateTime, TakesMissingFieldsAsZero)
{
    const TimeZone zone(kUtc);
    EXPECT_EQ(Time("2026-11-21 08:57"), Utc(2026, 11, 21, 8, 57, 0));
    EXPECT_EQ(Time("2026-11-21 08"), Utc(2026, 11, 21, 8, 0, 0));
    EXPECT_EQ(Time("2026-11-21"), Utc(2026, 11, 21));
    EXPECT_EQ(Time("2026-11"), Utc(2026, 10, 31)) << "day 0";
    EXPECT_EQ(Time("2026"), Utc(2025, 11, 30)) << "month 0 and day 0";
    EXPECT_EQ(Date("2026-11"), Utc(2026, 10, 31));
    EXPECT_EQ(Date("2026"), Utc(2025, 11, 30));
    EXPECT_EQ(Date("2024-03"), Utc(2024, 2, 29));
}

TEST(DateTime, StopsAtFirstFieldThatIsNotANumber)
{
    const TimeZone zone(kUtc);
    EXPECT_EQ(Time("2026-11-21T08:57:00"), Utc(2026, 11, 21));
    EXPECT_EQ(Time("2026/11/21 08:57:00"), Utc(2025, 11, 30));
    EXPECT_EQ(Time("2026-11-21 08.57.00"), Utc(2026, 11, 21, 8));
    EXPECT_EQ(Time("2026-x-21 08:57:00"), Utc(2025, 11, 30));
}

TEST(DateTime, TakesInvalidTextAsYearZero)
{
    const TimeZone zone(kUtc);
    const std::int32_t expected = Low32(Utc(0, 0, 0));
    for (const char *text : {"", " ", "garbage", "-", "--", "abc-11-21", "%d-%d-%d", ":", "\r"}) {
        EXPECT_EQ(Time(text), expected) << text;
        EXPECT_EQ(Date(text), expected) << text;
    }
}

TEST(DateTime, NormalizesFieldsBeyondTheirRange)
{
    const TimeZone zone(kUtc);
    EXPECT_EQ(Time("2026-13-01 00:00:00"), Utc(2027, 1, 1));
    EXPECT_EQ(Time("2026-02-30 00:00:00"), Utc(2026, 3, 2));
    EXPECT_EQ(Time("2026-11-21 24:60:60"), Utc(2026, 11, 22, 1, 1, 0));
    EXPECT_EQ(Time("2026-11-21 00:00:100000"), Utc(2026, 11, 21) + 100000);
    EXPECT_EQ(Time("2023-02-29 00:00:00"), Utc(2023, 3, 1));
    EXPECT_EQ(Date("2026-12-365"), Utc(2026, 12, 365));
}

TEST(DateTime, AcceptsSignedFields)
{
    const TimeZone zone(kUtc);
    EXPECT_EQ(Time("2026--1-01 00:00:00"), Utc(2025, 11, 1));
    EXPECT_EQ(Time("2026-11--1 -1:-1:-1"), Utc(2026, 11, -1, -1, -1, -1));
    EXPECT_EQ(Time("+2026-+11-+21 +8:+57:+1"), Utc(2026, 11, 21, 8, 57, 1));
    EXPECT_EQ(Date("-1-01-01"), Low32(Utc(-1, 1, 1)));
}

TEST(DateTime, ReadsTimesBefore1970AsNegative)
{
    const TimeZone zone(kUtc);
    EXPECT_EQ(Time("1969-12-31 23:59:59"), -1);
    EXPECT_EQ(Time("1950-06-15 12:00:00"), Utc(1950, 6, 15, 12));
    EXPECT_EQ(Time("1901-12-13 20:45:52"), INT_MIN);
}

TEST(DateTime, KeepsLow32BitsOfTimeBeyond32Bits)
{
    const TimeZone zone(kUtc);
    EXPECT_EQ(Time("2038-01-19 03:14:07"), INT_MAX);
    EXPECT_EQ(Time("2038-01-19 03:14:08"), INT_MIN);
    EXPECT_EQ(Time("2106-02-07 06:28:16"), 0);
    EXPECT_EQ(Date("9999-12-31"), Low32(Utc(9999, 12, 31)));
    EXPECT_EQ(Time("1901-12-13 20:45:51"), INT_MAX);
    EXPECT_EQ(Date("0001-01-01"), Low32(Utc(1, 1, 1)));
}

TEST(DateTime, AcceptsLargestNumbersOf32Bits)
{
    const TimeZone zone(kUtc);
    EXPECT_EQ(Date("2147483647-01-01"), Low32(Utc(INT_MAX, 1, 1)));
    EXPECT_EQ(Date("2147483647-12-31"), Low32(Utc(INT_MAX, 12, 31)));
    EXPECT_EQ(Date("1970-2147483647-1"), Low32(Utc(1970, INT_MAX, 1)));
    EXPECT_EQ(Date("1970-1-2147483647"), Low32(Utc(1970, 1, INT_MAX)));
    EXPECT_EQ(Time("1970-1-1 2147483647:2147483647:2147483647"),
              Low32(Utc(1970, 1, 1, INT_MAX, INT_MAX, INT_MAX)));
    EXPECT_EQ(Time("1970-1-1 -2147483648:-2147483648:-2147483648"),
              Low32(Utc(1970, 1, 1, INT_MIN, INT_MIN, INT_MIN)));
    EXPECT_EQ(Date("-2147481748-1-1"), Low32(Utc(-2147481748, 1, 1)))
        << "the first year of a calendar that counts 32 bits from 1900";
}

TEST(DateTime, KeepsLow32BitsOfYearMinus1900)
{
    const TimeZone zone(kUtc);
    EXPECT_EQ(Date("-2147483648-1-1"), Low32(Utc(2147483648, 1, 1)));
    EXPECT_EQ(Date("4294969322-11-21"), Utc(2026, 11, 21));
}

TEST(DateTime, ReturnsMinusOneBeyondLimitsOfCalendar)
{
    const TimeZone zone(kUtc);
    EXPECT_EQ(Date("-2147481749-13-1"), -1) << "a month beyond the last year";
    EXPECT_EQ(Date("-2147481748-0-1"), -1) << "a month before the first year";
}

TEST(DateTime, TakesNumbersBeyond64BitsAsNearestOf64Bits)
{
    const TimeZone zone(kUtc);
    const std::string huge(40, '9');
    // The low 32 bits of the largest number of 64 bits are all set, those of the smallest are 0.
    EXPECT_EQ(Date(huge + "-1-1"), Low32(Utc(-1, 1, 1)));
    EXPECT_EQ(Date("-" + huge + "-1-1"), Low32(Utc(0, 1, 1)));
    EXPECT_EQ(Date("1970-" + huge + "-1"), Low32(Utc(1970, -1, 1)));
    EXPECT_EQ(Time("1970-1-1 " + huge + ":-" + huge + ":" + huge),
              Low32(Utc(1970, 1, 1, -1, 0, -1)));
    EXPECT_EQ(Date(std::string(2000, '9')), Low32(Utc(-1, 0, 0)));
}

TEST(DateTime, ReadsLocalTimeOfEasternZone)
{
    const TimeZone zone(kEasternZone);
    EXPECT_EQ(Time("2026-01-15 12:00:00"), Utc(2026, 1, 15, 11));
    EXPECT_EQ(Date("2026-01-15"), Utc(2026, 1, 14, 23));
}

TEST(DateTime, ReadsLocalTimeOfWesternZone)
{
    const TimeZone zone(kWesternZone);
    EXPECT_EQ(Time("2026-01-15 12:00:00"), Utc(2026, 1, 15, 17));
    EXPECT_EQ(Date("2026-01-15"), Utc(2026, 1, 15, 5));
}

TEST(DateTime, ReadsSummerTimesWithoutDaylightSaving)
{
    {
        const TimeZone zone(kEasternZone);
        EXPECT_EQ(Time("2026-07-15 12:00:00"), Utc(2026, 7, 15, 11));
        EXPECT_EQ(Date("2026-07-15"), Utc(2026, 7, 14, 23));
    }
    const TimeZone zone(kWesternZone);
    EXPECT_EQ(Time("2026-07-15 12:00:00"), Utc(2026, 7, 15, 17));
    EXPECT_EQ(Date("2026-07-15"), Utc(2026, 7, 15, 5));
}

TEST(DateTime, ReadsSkippedHourAsStandardTime)
{
    {
        const TimeZone zone(kEasternZone);
        EXPECT_EQ(Time("2026-03-29 01:59:59"), Utc(2026, 3, 29, 0, 59, 59));
        EXPECT_EQ(Time("2026-03-29 02:00:00"), Utc(2026, 3, 29, 1));
        EXPECT_EQ(Time("2026-03-29 02:30:00"), Utc(2026, 3, 29, 1, 30));
        EXPECT_EQ(Time("2026-03-29 03:00:00"), Utc(2026, 3, 29, 2));
    }
    const TimeZone zone(kWesternZone);
    EXPECT_EQ(Time("2026-03-08 02:30:00"), Utc(2026, 3, 8, 7, 30));
}

TEST(DateTime, ReadsRepeatedHourAsStandardTime)
{
    {
        const TimeZone zone(kEasternZone);
        EXPECT_EQ(Time("2026-10-25 01:59:59"), Utc(2026, 10, 25, 0, 59, 59));
        EXPECT_EQ(Time("2026-10-25 02:30:00"), Utc(2026, 10, 25, 1, 30));
        EXPECT_EQ(Time("2026-10-25 03:00:00"), Utc(2026, 10, 25, 2));
    }
    const TimeZone zone(kWesternZone);
    EXPECT_EQ(Time("2026-11-01 01:30:00"), Utc(2026, 11, 1, 6, 30));
}

TEST(DateTime, UsesOneOffsetAllYearWhateverWasReadBefore)
{
    struct Case
    {
        const char *Zone;
        std::int64_t Offset;
    };
    for (const Case &place :
         {Case{kUtc, 0}, Case{kEasternZone, kHour}, Case{kWesternZone, -5 * kHour},
          Case{"XXX-12:45", 45900}, Case{"NST3:30NDT,M3.2.0,M11.1.0", -12600}}) {
        const TimeZone zone(place.Zone);
        std::mt19937 random(20261121);
        for (int i = 0; i < 3000; ++i) {
            const auto moment = static_cast<std::int32_t>(
                std::uniform_int_distribution<std::int64_t>(0, INT_MAX)(random));
            const std::string text = TimeToString(moment).Get();
            ASSERT_EQ(Time(text), Low32(moment - place.Offset)) << place.Zone << ": " << text;
        }
    }
}

TEST(DateTime, WritesUtcInEveryZone)
{
    for (const char *name : {kUtc, kEasternZone, kWesternZone}) {
        const TimeZone zone(name);
        EXPECT_STREQ(TimeToString(1000000000).Get(), "2001-09-09 01:46:40") << name;
        EXPECT_STREQ(DateToString(1000000000).Get(), "2001-09-09") << name;
        EXPECT_STREQ(TimeToString(Low32(Utc(2026, 7, 15, 23, 30))).Get(), "2026-07-15 23:30:00");
        EXPECT_STREQ(DateToString(Low32(Utc(2026, 7, 15, 23, 30))).Get(), "2026-07-15");
    }
}

TEST(DateTime, WritesLeadingZeros)
{
    EXPECT_STREQ(TimeToString(0).Get(), "1970-01-01 00:00:00");
    EXPECT_STREQ(DateToString(0).Get(), "1970-01-01");
    EXPECT_STREQ(TimeToString(Low32(Utc(2024, 2, 9, 3, 4, 5))).Get(), "2024-02-09 03:04:05");
}

TEST(DateTime, WritesWholeRangeOf32Bits)
{
    EXPECT_STREQ(TimeToString(INT_MAX).Get(), "2038-01-19 03:14:07");
    EXPECT_STREQ(TimeToString(INT_MIN).Get(), "1901-12-13 20:45:52");
    EXPECT_STREQ(TimeToString(-1).Get(), "1969-12-31 23:59:59");
    EXPECT_STREQ(DateToString(INT_MAX).Get(), "2038-01-19");
    EXPECT_STREQ(DateToString(INT_MIN).Get(), "1901-12-13");
    EXPECT_STREQ(DateToString(-1).Get(), "1969-12-31");
}

TEST(DateTime, RoundTripKeepsTextOnUtcSystem)
{
    const TimeZone zone(kUtc);
    for (const char *text : {"1999-12-31 23:59:59", "2000-01-01 00:00:00", "2024-02-29 12:34:56",
                             "1970-01-01 00:00:00", "1901-12-13 20:45:52"})
        EXPECT_STREQ(TimeToString(Time(text)).Get(), text);
    EXPECT_STREQ(DateToString(Date("1999-12-31")).Get(), "1999-12-31");
}

TEST(DateTime, RoundTripShiftsTextByZoneOffset)
{
    {
        const TimeZone zone(kEasternZone);
        EXPECT_STREQ(TimeToString(Time("2026-07-15 00:30:00")).Get(), "2026-07-14 23:30:00");
        EXPECT_STREQ(DateToString(Date("2026-07-15")).Get(), "2026-07-14");
    }
    const TimeZone zone(kWesternZone);
    EXPECT_STREQ(TimeToString(Time("1999-12-31 23:59:59")).Get(), "2000-01-01 04:59:59");
    EXPECT_STREQ(DateToString(Date("1999-12-31")).Get(), "1999-12-31");
}

} // namespace
} // namespace nimbra
