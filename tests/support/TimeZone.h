#pragma once

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

namespace nimbra::test {

/// Sets the time zone of the process, as in TZ, during its lifetime. Tests use complete rules, so
/// that they need no time zone database.
class TimeZone
{
public:
    explicit TimeZone(const char *name)
    {
        if (const char *before = std::getenv("TZ"))
            before_ = before;
        setenv("TZ", name, 1);
        tzset();
    }
    ~TimeZone()
    {
        if (before_)
            setenv("TZ", before_->c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }
    TimeZone(const TimeZone &) = delete;
    TimeZone &operator=(const TimeZone &) = delete;

private:
    std::optional<std::string> before_;
};

/// Central Europe and the east of North America, with their current rules.
inline constexpr char kEasternZone[] = "CET-1CEST,M3.5.0,M10.5.0/3";
inline constexpr char kWesternZone[] = "EST5EDT,M3.2.0,M11.1.0";

} // namespace nimbra::test
