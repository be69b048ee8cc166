#include "fuzz/ValueModel.h"

#include <array>
#include <cstdio>
#include <limits>
#include <optional>

namespace nimbra::fuzz {

namespace {

constexpr std::int64_t kDaySeconds = 86400;

/// Reads through a text from its start.
class Cursor
{
public:
    explicit Cursor(std::string_view text) : rest_(text) {}

    void SkipBlanks()
    {
        while (!rest_.empty() && (rest_[0] == ' ' || (rest_[0] >= '\t' && rest_[0] <= '\r')))
            rest_.remove_prefix(1);
    }

    bool Skip(char wanted)
    {
        if (rest_.empty() || rest_[0] != wanted)
            return false;
        rest_.remove_prefix(1);
        return true;
    }

    /// A number with blanks and a sign before it; one beyond 64 bits is the largest of its sign.
    std::optional<std::int64_t> Number()
    {
        SkipBlanks();
        const bool isNegative = Skip('-');
        if (!isNegative)
            Skip('+');
        if (rest_.empty() || !IsDigit(rest_[0]))
            return std::nullopt;
        std::int64_t number = 0;
        bool isTooLarge = false;
        for (; !rest_.empty() && IsDigit(rest_[0]); rest_.remove_prefix(1)) {
            const std::int64_t digit = isNegative ? '0' - rest_[0] : rest_[0] - '0';
            isTooLarge = isTooLarge || __builtin_mul_overflow(number, 10, &number) ||
                         __builtin_add_overflow(number, digit, &number);
        }
        if (!isTooLarge)
            return number;
        return isNegative ? std::numeric_limits<std::int64_t>::min()
                          : std::numeric_limits<std::int64_t>::max();
    }

private:
    static bool IsDigit(char c) { return c >= '0' && c <= '9'; }

    std::string_view rest_;
};

std::int32_t Low32(std::int64_t number)
{
    return static_cast<std::int32_t>(static_cast<std::uint64_t>(number) & 0xFFFFFFFFU);
}

std::int64_t FloorDivide(std::int64_t number, std::int64_t divisor)
{
    return number / divisor - (number % divisor < 0 ? 1 : 0);
}

/// Days from 1970-01-01 to the first of a month, 0 to 11, of a year of the Gregorian calendar.
std::int64_t DaysTo(std::int64_t year, int month)
{
    static constexpr std::array<int, 12> kDaysBefore{0,   31,  59,  90,  120, 151,
                                                     181, 212, 243, 273, 304, 334};
    // Leap days of all years before the one whose leap day, if any, already counts.
    const std::int64_t last = month > 1 ? year : year - 1;
    const std::int64_t leapDays =
        FloorDivide(last, 4) - FloorDivide(last, 100) + FloorDivide(last, 400);
    constexpr std::int64_t kLeapDaysTo1970 = 1969 / 4 - 1969 / 100 + 1969 / 400;
    return (year - 1970) * 365 + leapDays - kLeapDaysTo1970 +
           kDaysBefore.at(static_cast<std::size_t>(month));
}

/// Year, month, day, hour, minute, second; those that the text lacks are 0.
using Fields = std::array<std::int64_t, 6>;

Fields ReadFields(std::string_view text, std::string_view separators)
{
    Fields fields = {};
    Cursor cursor(text);
    for (std::size_t i = 0; i <= separators.size(); ++i) {
        if (i > 0 && separators[i - 1] == ' ')
            cursor.SkipBlanks();
        else if (i > 0 && !cursor.Skip(separators[i - 1]))
            break;
        const std::optional<std::int64_t> number = cursor.Number();
        if (!number)
            break;
        fields.at(i) = *number;
    }
    return fields;
}

ModelTime ToSeconds(const Fields &fields, std::int64_t ahead)
{
    const std::int32_t yearsSince1900 =
        Low32(static_cast<std::int64_t>(static_cast<std::uint64_t>(fields[0]) - 1900U));
    const std::int64_t month =
        Low32(static_cast<std::int64_t>(static_cast<std::uint64_t>(fields[1]) - 1U));
    const std::int64_t year = std::int64_t{1900} + yearsSince1900 + FloorDivide(month, 12);
    const auto monthOfYear = static_cast<int>(month - FloorDivide(month, 12) * 12);
    const std::int64_t days = DaysTo(year, monthOfYear) + Low32(fields[2]) - 1;
    const std::int64_t seconds = days * kDaySeconds + std::int64_t{Low32(fields[3])} * 3600 +
                                 std::int64_t{Low32(fields[4])} * 60 + Low32(fields[5]) - ahead;
    // A time whose year, less 1900, does not fit 32 bits does not exist: it reads as -1.
    constexpr std::int64_t kMargin = std::int64_t{100} * 366 * kDaySeconds;
    const std::int64_t first =
        DaysTo(1900 + std::int64_t{std::numeric_limits<std::int32_t>::min()}, 0) * kDaySeconds;
    const std::int64_t last =
        DaysTo(1901 + std::int64_t{std::numeric_limits<std::int32_t>::max()}, 0) * kDaySeconds;
    if (seconds < first - kMargin || seconds > last + kMargin)
        return {true, -1};
    return {seconds > first + kMargin && seconds < last - kMargin, Low32(seconds)};
}

} // namespace

std::int32_t NumberIn(std::string_view text)
{
    return Low32(Cursor(text).Number().value_or(0));
}

ModelTime DateIn(std::string_view text, std::int64_t ahead)
{
    return ToSeconds(ReadFields(text, "--"), ahead);
}

ModelTime TimeIn(std::string_view text, std::int64_t ahead)
{
    return ToSeconds(ReadFields(text, "-- ::"), ahead);
}

std::string DateText(std::int32_t seconds)
{
    const std::int64_t day = FloorDivide(seconds, kDaySeconds);
    std::int64_t year = 1969 + FloorDivide(day, 365);
    while (DaysTo(year + 1, 0) <= day)
        ++year;
    int month = 0;
    while (month < 11 && DaysTo(year, month + 1) <= day)
        ++month;
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d", static_cast<int>(year), month + 1,
                  static_cast<int>(day - DaysTo(year, month) + 1));
    return text;
}

std::string TimeText(std::int32_t seconds)
{
    const auto ofDay = static_cast<int>(seconds - FloorDivide(seconds, kDaySeconds) * kDaySeconds);
    char text[64];
    std::snprintf(text, sizeof text, " %02d:%02d:%02d", ofDay / 3600, ofDay / 60 % 60, ofDay % 60);
    return DateText(seconds) + text;
}

} // namespace nimbra::fuzz
