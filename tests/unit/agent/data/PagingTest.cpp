#include "data/Paging.h"

#include "data/SqlText.h"

#include <climits>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace nimbra {
namespace {

std::string PageOf(std::int32_t offset, std::int32_t limit)
{
    Paging page;
    page.Offset = offset;
    page.Limit = limit;
    SqlText sql("SELECT No FROM Door");
    page.AppendTo(sql);
    EXPECT_FALSE(sql.IsRefused());
    return sql.Get();
}

TEST(Paging, IsZeroByDefault)
{
    const Paging page;
    EXPECT_EQ(page.Offset, 0);
    EXPECT_EQ(page.Limit, 0);
    EXPECT_EQ(page.Total, 0);
    EXPECT_EQ(page.Count, 0);
}

TEST(Paging, AppendsNothingForWholeList)
{
    EXPECT_EQ(PageOf(0, 0), "SELECT No FROM Door");
}

TEST(Paging, AppendsLimitAndThenOffset)
{
    EXPECT_EQ(PageOf(0, 25), "SELECT No FROM Door LIMIT 25");
    EXPECT_EQ(PageOf(10, 5), "SELECT No FROM Door LIMIT 5 OFFSET 10");
}

TEST(Paging, AppendsOffsetWithoutLimit)
{
    EXPECT_EQ(PageOf(10, 0), "SELECT No FROM Door OFFSET 10");
}

TEST(Paging, AppendsNumbersUnchanged)
{
    EXPECT_EQ(PageOf(-1, -1), "SELECT No FROM Door LIMIT -1 OFFSET -1");
    EXPECT_EQ(PageOf(INT_MIN, INT_MAX), "SELECT No FROM Door LIMIT 2147483647 OFFSET -2147483648");
}

TEST(Paging, SetsDefaultLimitOnlyWhenNoneWasGiven)
{
    Paging page;
    page.SetDefaultLimit();
    EXPECT_EQ(page.Limit, 25);
    for (const std::int32_t limit : {1, 24, 26, -1, INT_MAX, INT_MIN}) {
        page.Limit = limit;
        page.SetDefaultLimit();
        EXPECT_EQ(page.Limit, limit);
    }
    EXPECT_EQ(page.Offset, 0);
}

} // namespace
} // namespace nimbra
