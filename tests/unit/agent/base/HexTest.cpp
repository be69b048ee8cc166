#include "base/Hex.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace nimbra {
namespace {

TEST(Hex, WritesTwoUpperCaseDigitsPerByte)
{
    const std::array<unsigned char, 6> bytes = {0x00, 0x09, 0x0A, 0x7F, 0xAB, 0xFF};
    EXPECT_STREQ(ToHex(bytes).Get(), "00090A7FABFF");
}

TEST(Hex, WritesEveryByteAsPrintfDoes)
{
    for (int byte = 0; byte < 256; ++byte) {
        FixedText<2> expected;
        expected.Format("%02X", static_cast<unsigned>(byte));
        const std::array<unsigned char, 1> bytes = {static_cast<unsigned char>(byte)};
        EXPECT_EQ(ToHex(bytes), expected);
    }
}

TEST(Hex, ConvertsWholeDigest)
{
    std::array<unsigned char, 32> digest;
    digest.fill(0xC5);
    std::string expected;
    for (int i = 0; i < 32; ++i)
        expected += "C5";
    EXPECT_EQ(ToHex(digest).View(), expected);
}

} // namespace
} // namespace nimbra
