#include "panel-check/Report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace nimbra::check {
namespace {

using ::testing::ElementsAre;
using ::testing::Field;

TEST(Report, WithoutFindingsIsEmptyListAndCount)
{
    const Report report;
    EXPECT_FALSE(report.HasFailures());
    EXPECT_EQ(report.ToText(), "0 checks: 0 failures, 0 warnings\n");
    EXPECT_EQ(report.ToJson(), "[\n]\n");
}

TEST(Report, KeepsOrderOfFindings)
{
    Report report;
    report.Fail("b", "is missing", "Create it");
    report.Ok("a", "exists");
    EXPECT_THAT(report.Findings(),
                ElementsAre(Field(&Finding::Subject, "b"), Field(&Finding::Subject, "a")));
}

TEST(Report, PrintsOneLinePerFindingWithActionAndCounts)
{
    Report report;
    report.Ok("a", "exists");
    report.Warn("b", "is slow", "Add an index");
    EXPECT_FALSE(report.HasFailures());
    report.Fail("c", "is missing", "Create it");
    EXPECT_TRUE(report.HasFailures());
    EXPECT_EQ(report.ToText(), "ok       a: exists\n"
                               "warning  b: is slow. Add an index\n"
                               "fail     c: is missing. Create it\n"
                               "3 checks: 1 failure, 1 warning\n");
}

TEST(Report, PrintsObjectsAsJson)
{
    Report report;
    report.Ok("a", "exists");
    report.Warn("b", "is slow", "Add an index");
    EXPECT_EQ(report.ToJson(),
              "[\n"
              " {\"status\": \"ok\", \"subject\": \"a\", \"finding\": \"exists\", \"action\": "
              "\"\"},\n"
              " {\"status\": \"warning\", \"subject\": \"b\", \"finding\": \"is slow\", "
              "\"action\": \"Add an index\"}\n"
              "]\n");
}

TEST(Report, ReplacesUnprintableBytesOfPanel)
{
    Report report;
    report.Ok("a\nb", "\x1b[31m\xff\t\x7f~");
    EXPECT_EQ(report.ToText(), "ok       a?b: ?[31m???~\n"
                               "1 check: 0 failures, 0 warnings\n");
}

TEST(Report, EscapesQuotesAndBackslashesInJson)
{
    Report report;
    report.Ok("a", R"("\")");
    EXPECT_THAT(report.ToJson(), ::testing::HasSubstr(R"("finding": "\"\\\"",)"));
}

} // namespace
} // namespace nimbra::check
