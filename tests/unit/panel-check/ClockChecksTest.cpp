#include "panel-check/Checks.h"
#include "support/TimeZone.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <string>

namespace nimbra::check {
namespace {

using ::testing::HasSubstr;

constexpr std::time_t kNewYear2026 = 1767225600;

Finding CheckedClock(std::time_t now)
{
    Report report;
    CheckClock(now, &report);
    return report.Findings().at(0);
}

Finding CheckedZone(const std::string &zone)
{
    const test::TimeZone set(zone.c_str());
    Report report;
    CheckTimeZone(kNewYear2026, &report);
    return report.Findings().at(0);
}

TEST(CheckClock, AcceptsTimesSince2026)
{
    EXPECT_EQ(CheckedClock(kNewYear2026).Result, Outcome::Ok);
    EXPECT_EQ(CheckedClock(kNewYear2026).Text, "2026-01-01 00:00:00 UTC");
}

TEST(CheckClock, WarnsOfTimesBefore2026)
{
    EXPECT_EQ(CheckedClock(kNewYear2026 - 1).Result, Outcome::Warning);
    EXPECT_EQ(CheckedClock(0).Text, "1970-01-01 00:00:00 UTC is in the past");
}

TEST(CheckClock, WarnsOfTimesBeyond32Bits)
{
    EXPECT_EQ(CheckedClock(2147483647).Result, Outcome::Ok);
    const Finding beyond = CheckedClock(2147483648);
    EXPECT_EQ(beyond.Result, Outcome::Warning);
    EXPECT_EQ(beyond.Text, "2038-01-19 03:14:08 UTC does not fit into 32 bits");
}

TEST(CheckTimeZone, AcceptsPosixForms)
{
    EXPECT_EQ(CheckedZone("CET-1").Text, "local time is 01:00:00 CET (+0100)");
    for (const char *zone :
         {"UTC", "UTC0", "CET-1CEST,M3.5.0,M10.5.0/3", "<+0530>-5:30", "EST5EDT", "", ":UTC0"})
        EXPECT_EQ(CheckedZone(zone).Result, Outcome::Ok) << zone;
}

TEST(CheckTimeZone, WarnsOfUnknownZone)
{
    const Finding unknown = CheckedZone("Europe/Atlantis");
    EXPECT_EQ(unknown.Result, Outcome::Warning);
    EXPECT_THAT(unknown.Text, HasSubstr("TZ=Europe/Atlantis is not known; local time is 00:00:00"));
    for (const char *zone : {"<CET", "CE-1", "<CET>", "CET-", "/no/such/zone", ":Nowhere"})
        EXPECT_EQ(CheckedZone(zone).Result, Outcome::Warning) << zone;
}

} // namespace
} // namespace nimbra::check
