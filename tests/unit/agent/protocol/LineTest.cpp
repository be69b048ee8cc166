#include "protocol/Line.h"

#include <climits>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>

namespace nimbra {
namespace {

/// A formatted line and a byte behind it that must stay.
struct Line
{
    Line()
    {
        std::memset(Text, 'x', sizeof Text);
        Guard = 'g';
    }
    char Text[kLineSize];
    char Guard;
};

/// Formats a line of `length` bytes, its line feed included, that would be the whole response.
std::string FormatOf(std::size_t length)
{
    Line line;
    const std::string name(length - std::strlen("Name=\n"), 'n');
    FormatLine(line.Text, "Name=%s\n", name.c_str());
    EXPECT_EQ(line.Guard, 'g');
    return line.Text;
}

TEST(Line, FormatsALine)
{
    Line line;
    FormatLine(line.Text, "%sResponse?Result=%d&Name=%s\n", "GetDoorInfo", 0, "Front 100%");
    EXPECT_STREQ(line.Text, "GetDoorInfoResponse?Result=0&Name=Front 100%\n");
    FormatLine(line.Text, "HelloResponse?Result=0&Key=%d\n", INT_MIN);
    EXPECT_STREQ(line.Text, "HelloResponse?Result=0&Key=-2147483648\n");
}

TEST(Line, KeepsALineThatLeavesAByteFree)
{
    EXPECT_EQ(FormatOf(1022), "Name=" + std::string(1016, 'n') + "\n");
}

TEST(Line, KeepsALineThatJustFits)
{
    EXPECT_EQ(FormatOf(1023), "Name=" + std::string(1017, 'n') + "\n");
}

TEST(Line, EndsALineThatIsCutInItsLineFeed)
{
    const std::string cut = "Name=" + std::string(1017, 'n') + "\n";
    EXPECT_EQ(FormatOf(1024), cut);
    EXPECT_EQ(FormatOf(1025), cut);
    EXPECT_EQ(FormatOf(5000), cut);
    EXPECT_EQ(FormatOf(1000000), cut);
}

TEST(Line, CutsAfterWhateverFieldFits)
{
    Line line;
    FormatLine(line.Text, "A=%s&B=%s\n", std::string(1010, 'a').c_str(),
               std::string(1010, 'b').c_str());
    EXPECT_EQ(line.Text, "A=" + std::string(1010, 'a') + "&B=" + std::string(7, 'b') + "\n");
    EXPECT_EQ(std::strlen(line.Text), 1023U);
}

} // namespace
} // namespace nimbra
