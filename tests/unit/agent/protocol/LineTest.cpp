#include "protocol/Line.h"

#include <climits>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>

namespace nimbra {
namespace {

/// A row that has `length` bytes with its line feed before it is cut.
std::string RowOf(std::size_t length)
{
    const std::string name(length - std::strlen("Name=\n"), 'n');
    Line line;
    line.Pair("Name", name);
    EXPECT_EQ(line.View(), line.Get());
    return line.Get();
}

TEST(Line, IsLineFeedWithoutPairs)
{
    EXPECT_STREQ(Line().Get(), "\n");
    EXPECT_EQ(Line().View(), "\n");
}

TEST(Line, SeparatesPairsByAmpersand)
{
    Line line;
    line.Pair("DoorNo", 3).Pair("Name", "Front 100%").Pair("Status", 0);
    EXPECT_STREQ(line.Get(), "DoorNo=3&Name=Front 100%&Status=0\n");
    EXPECT_EQ(line.View(), line.Get());
}

TEST(Line, RequestBeginsWithCommand)
{
    EXPECT_STREQ(Line::Request("HeartBeat").Get(), "HeartBeat?\n");
    EXPECT_STREQ(Line::Request("HeartBeat").Pair("DeviceNo", 7).Pair("A", "b").Get(),
                 "HeartBeat?DeviceNo=7&A=b\n");
}

TEST(Line, ResponseBeginsWithCommandAndResult)
{
    EXPECT_STREQ(Line::Response("DelCardInfo", 9).Get(), "DelCardInfoResponse?Result=9\n");
    EXPECT_STREQ(Line::Response("Hello", 0).Pair("Key", 5).Get(), "HelloResponse?Result=0&Key=5\n");
}

TEST(Line, WritesNumbersInBase10)
{
    for (const std::int32_t number : {0, 1, -1, 10, -10, 2147483647, INT_MIN}) {
        Line line;
        line.Pair("Key", number);
        EXPECT_EQ(line.View(), "Key=" + std::to_string(number) + "\n");
    }
}

TEST(Line, WritesTextsUnchanged)
{
    Line line;
    line.Pair("A", "").Pair("B", FixedText<4>("x&y=z")).QuotedPair("Url", "rtsp://a?b=c&d");
    EXPECT_STREQ(line.Get(), "A=&B=x&y=&Url=\"rtsp://a?b=c&d\"\n");
}

TEST(Line, KeepsLineThatFits)
{
    EXPECT_EQ(RowOf(1022), "Name=" + std::string(1016, 'n') + "\n");
    EXPECT_EQ(RowOf(1023), "Name=" + std::string(1017, 'n') + "\n");
}

TEST(Line, EndsInLineFeedWhenCut)
{
    const std::string cut = "Name=" + std::string(1017, 'n') + "\n";
    EXPECT_EQ(RowOf(1024), cut);
    EXPECT_EQ(RowOf(1025), cut);
    EXPECT_EQ(RowOf(5000), cut);
    EXPECT_EQ(RowOf(1000000), cut);
}

TEST(Line, CutsFirstPieceThatDoesNotFit)
{
    Line text;
    text.Pair("A", std::string(1010, 'a')).Pair("B", std::string(1010, 'b')).Pair("C", 1);
    EXPECT_EQ(text.View(), "A=" + std::string(1010, 'a') + "&B=" + std::string(7, 'b') + "\n");
    EXPECT_EQ(text.View().size(), kLineSize - 1);

    Line number;
    number.Pair("A", std::string(1010, 'a')).Pair("Long", 123456789).QuotedPair("C", "c");
    EXPECT_EQ(number.View(), "A=" + std::string(1010, 'a') + "&Long=1234\n");

    Line key;
    key.Pair("A", std::string(1015, 'a')).Pair("LongKey", 1);
    EXPECT_EQ(key.View(), "A=" + std::string(1015, 'a') + "&Long\n");
}

TEST(Line, WritesAllWordsThatFit)
{
    Line line;
    line.WordsPair("List", "3 7 12");
    EXPECT_STREQ(line.Get(), "List=3 7 12\n");
    Line empty;
    empty.WordsPair("List", "");
    EXPECT_STREQ(empty.Get(), "List=\n");
}

TEST(Line, WritesOnlyWholeWords)
{
    // "List=" leaves 1017 bytes: 203 words of four digits with a blank each, and two more bytes.
    std::string words = "1000";
    for (int i = 1001; i < 1300; ++i)
        words += " " + std::to_string(i);
    Line line;
    line.WordsPair("List", words);
    EXPECT_EQ(line.View(), "List=" + words.substr(0, 203 * 5 - 1) + "\n");

    Line exact;
    exact.WordsPair("List", std::string(1012, '1') + " 234");
    EXPECT_EQ(exact.View(), "List=" + std::string(1012, '1') + " 234\n");
    EXPECT_EQ(exact.View().size(), kLineSize - 2);

    Line full;
    full.WordsPair("List", std::string(1012, '1') + " 2345");
    EXPECT_EQ(full.View(), "List=" + std::string(1012, '1') + " 2345\n");
    EXPECT_EQ(full.View().size(), kLineSize - 1);

    Line cut;
    cut.WordsPair("List", std::string(1012, '1') + " 23456");
    EXPECT_EQ(cut.View(), "List=" + std::string(1012, '1') + "\n");
}

TEST(Line, CopyIsIndependent)
{
    Line line = Line::Response("Hello", 0);
    const Line copy = line;
    line.Pair("Key", 1);
    EXPECT_STREQ(copy.Get(), "HelloResponse?Result=0\n");
    EXPECT_STREQ(line.Get(), "HelloResponse?Result=0&Key=1\n");
}

} // namespace
} // namespace nimbra
