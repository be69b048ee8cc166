#include "base/FixedText.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace nimbra {
namespace {

/// A text that contains zero bytes.
template <std::size_t N>
std::string_view Bytes(const char (&text)[N])
{
    return {text, N - 1};
}

TEST(FixedText, IsEmptyByDefault)
{
    const FixedText<8> text;
    EXPECT_TRUE(text.IsEmpty());
    EXPECT_STREQ(text.Get(), "");
    EXPECT_EQ(text.View(), "");
}

TEST(FixedText, KeepsTextOneByteBelowCapacity)
{
    const FixedText<8> text("1234567");
    EXPECT_STREQ(text.Get(), "1234567");
    EXPECT_FALSE(text.IsEmpty());
}

TEST(FixedText, KeepsTextOfExactlyItsCapacity)
{
    EXPECT_STREQ(FixedText<8>("12345678").Get(), "12345678");
    EXPECT_EQ(FixedText<8>("12345678").View().size(), 8U);
}

TEST(FixedText, CutsTextOneByteOverCapacity)
{
    EXPECT_STREQ(FixedText<8>("123456789").Get(), "12345678");
}

TEST(FixedText, CutsTextFarOverCapacity)
{
    EXPECT_EQ(FixedText<32>(std::string(100000, 'x')).View(), std::string(32, 'x'));
}

TEST(FixedText, KeepsOneByteWhenCapacityIsOne)
{
    EXPECT_STREQ(FixedText<1>("").Get(), "");
    EXPECT_STREQ(FixedText<1>("ab").Get(), "a");
}

TEST(FixedText, EndsAtFirstZeroByte)
{
    EXPECT_EQ(FixedText<8>(Bytes("ab\0cd")).View(), "ab");
    EXPECT_EQ(FixedText<8>(Bytes("\0abcd")).View(), "");
    EXPECT_EQ(FixedText<8>(Bytes("1234567\0")).View(), "1234567");
    EXPECT_EQ(FixedText<4>(Bytes("1234\0005")).View(), "1234");
}

TEST(FixedText, KeepsEveryNonzeroByte)
{
    std::string bytes;
    for (int byte = 1; byte < 256; ++byte)
        bytes += static_cast<char>(byte);
    EXPECT_EQ(FixedText<255>(bytes).View(), bytes);
}

TEST(FixedText, AssignClearsRestOfLongerValue)
{
    FixedText<8> text("12345678");
    text.Assign("ab");
    for (int i = 2; i <= 8; ++i)
        EXPECT_EQ(text.Get()[i], '\0') << i;
}

TEST(FixedText, IsEmptyAfterClear)
{
    FixedText<8> text("12345678");
    text.Clear();
    EXPECT_TRUE(text.IsEmpty());
    for (int i = 0; i <= 8; ++i)
        EXPECT_EQ(text.Get()[i], '\0') << i;
}

TEST(FixedText, FormatsTextUpToCapacity)
{
    FixedText<8> text;
    text.Format("%s", "1234567");
    EXPECT_STREQ(text.Get(), "1234567");
    text.Format("%s", "12345678");
    EXPECT_STREQ(text.Get(), "12345678");
}

TEST(FixedText, CutsFormattedTextAtCapacity)
{
    FixedText<8> text;
    text.Format("%s", "123456789");
    EXPECT_STREQ(text.Get(), "12345678");
    text.Format("%d-%s", -2147483647 - 1, "x");
    EXPECT_STREQ(text.Get(), "-2147483");
}

TEST(FixedText, FormatReplacesLongerValue)
{
    FixedText<8> text("12345678");
    text.Format("%s", "a");
    EXPECT_EQ(text.View(), "a");
    text.Format("%s", "");
    EXPECT_TRUE(text.IsEmpty());
}

TEST(FixedText, ComparesByText)
{
    FixedText<8> formatted("12345678");
    formatted.Format("%s", "ab");
    EXPECT_TRUE(formatted == FixedText<8>("ab"));
    EXPECT_FALSE(formatted == FixedText<8>("abc"));
    EXPECT_FALSE(formatted == FixedText<8>("AB"));
    EXPECT_TRUE(FixedText<2>("abc") == FixedText<2>("abd"));
}

TEST(FixedText, SetsSingleCharactersUpToCapacity)
{
    FixedText<2> text;
    text.Set(0, 'a');
    EXPECT_STREQ(text.Get(), "a");
    text.Set(1, 'b');
    EXPECT_STREQ(text.Get(), "ab");
}

TEST(FixedText, CopyIsIndependent)
{
    FixedText<8> first("first");
    const FixedText<8> second = first;
    first.Assign("other");
    EXPECT_STREQ(second.Get(), "first");
}

} // namespace
} // namespace nimbra
