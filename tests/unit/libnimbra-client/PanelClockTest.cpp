#include <gtest/gtest.h>

#include <chrono>
#include <optional>

#include <nimbra-client/PanelClock.h>

namespace nimbra::client {

namespace {

using std::chrono::minutes;

TEST(ClientTime, IsReadWithAndWithoutTimeOfDay)
{
    EXPECT_EQ(ParseTime("1970-01-02"), 86400);
    EXPECT_EQ(ParseTime("1970-01-01 01:02"), 3720);
    EXPECT_EQ(ParseTime("1970-01-01T01:02:03"), 3723);
    EXPECT_EQ(ParseTime("1969-12-31 23:59:59"), -1);
}

class RefusedTime : public ::testing::TestWithParam<const char *>
{};

TEST_P(RefusedTime, IsNotRead)
{
    EXPECT_EQ(ParseTime(GetParam()), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(ClientTime, RefusedTime,
                         ::testing::Values("", "2026", "2026-02-30", "2026-13-01",
                                           "2026-01-01 24:00", "2026-01-01 10", "2026-01-01x10:00",
                                           "2026-01-01 10:00:00x", "2040-01-01", "2026-01-00",
                                           "1 2 3", "2026-01-01 -1:00"));

TEST(ClientTime, IsWrittenInUtc)
{
    EXPECT_EQ(FormatTime(3723), "1970-01-01 01:02:03");
    EXPECT_EQ(FormatDate(86400), "1970-01-02");
}

TEST(ClientTime, DateIsShiftedToPanelDayUnlessNeverSet)
{
    EXPECT_EQ(ToPanelDay("2026-02-28", minutes(120)), "2026-03-01");
    EXPECT_EQ(ToPanelDay("2026-03-01", minutes(-300)), "2026-03-01");
    EXPECT_EQ(ToPanelDay("1970-01-01", minutes(120)), "1970-01-01");
}

} // namespace

} // namespace nimbra::client
