#include "data/Authority.h"

#include <climits>
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace nimbra {
namespace {

using Words = std::array<std::uint32_t, 9>;

/// The bits that a row of a role grants, and their word.
struct RoleRow
{
    int Form;
    int Authority;
    std::size_t Word;
    std::uint32_t Bits;
};
constexpr RoleRow kRoleRows[] = {
    // View, add and change: users 0, card formats 1, cards 2, access levels 3.
    {3, 0, 0, 1},
    {3, 1, 0, 2},
    {3, 2, 0, 4},
    {5, 0, 1, 1},
    {5, 1, 1, 2},
    {5, 2, 1, 4},
    {4, 0, 2, 1},
    {4, 1, 2, 2},
    {4, 2, 2, 4},
    {6, 0, 3, 1},
    {6, 1, 3, 2},
    {6, 2, 3, 4},
    // View and change: doors 4.
    {41, 0, 4, 1},
    {41, 3, 4, 4},
    // All bits: door lock 5, outputs 6.
    {1, 24, 5, 15},
    {1, 25, 6, 15},
    // View and change: threat definitions 7, threat level 8.
    {11, 0, 7, 1},
    {11, 2, 7, 4},
    {10, 0, 8, 1},
    {10, 3, 8, 4},
};

/// The words of a role that has only this row.
Words Expected(int form, int authority)
{
    Words words = {};
    for (const RoleRow &row : kRoleRows)
        if (row.Form == form && row.Authority == authority)
            words[row.Word] = row.Bits;
    return words;
}

TEST(Authority, GrantsNothingByDefault)
{
    EXPECT_EQ(AuthorityRecord().Words, Words());
}

TEST(Authority, GrantsRightsOfEachRoleRow)
{
    for (int form = 0; form <= 60; ++form)
        for (int authority = -1; authority <= 30; ++authority) {
            AuthorityRecord record;
            record.GrantRoleRight(form, authority);
            EXPECT_EQ(record.Words, Expected(form, authority)) << form << ", " << authority;
        }
}

TEST(Authority, GrantsNothingForUnknownNumbers)
{
    AuthorityRecord record;
    for (const int form : {INT_MIN, -41, -3, -1, 61, 259, 65536 + 3, INT_MAX})
        for (const int authority : {INT_MIN, -1, 0, 1, 2, 3, 24, 25, INT_MAX})
            record.GrantRoleRight(form, authority);
    for (const int form : {1, 3, 4, 5, 6, 10, 11, 41})
        for (const int authority : {INT_MIN, -2, 26, 256, INT_MAX})
            record.GrantRoleRight(form, authority);
    EXPECT_EQ(record.Words, Words());
}

TEST(Authority, CombinesRowsOfRole)
{
    AuthorityRecord record;
    record.GrantRoleRight(3, 0);
    record.GrantRoleRight(3, 2);
    record.GrantRoleRight(3, 2);
    record.GrantRoleRight(41, 0);
    record.GrantRoleRight(41, 3);
    record.GrantRoleRight(41, 1);
    record.GrantRoleRight(1, 24);
    EXPECT_EQ(record.Words, (Words{5, 0, 0, 0, 5, 15, 0, 0, 0}));
    record.GrantRoleRight(3, 1);
    EXPECT_EQ(record.Words[AuthUsers], 7U);
}

TEST(Authority, GrantsControllerEverything)
{
    AuthorityRecord record;
    record.GrantRoleRight(3, 0);
    record.GrantAll();
    Words all;
    all.fill(15);
    EXPECT_EQ(record.Words, all);
}

TEST(Authority, AllowsOnlyRightsWhoseBitIsSet)
{
    AuthorityRecord record;
    record.GrantRoleRight(4, 0);
    record.GrantRoleRight(4, 2);
    EXPECT_TRUE(record.Allows({AuthCards, kView}));
    EXPECT_FALSE(record.Allows({AuthCards, kAdd}));
    EXPECT_TRUE(record.Allows({AuthCards, kChange}));
    EXPECT_FALSE(record.Allows({AuthUsers, kView}));
    record.GrantRoleRight(1, 25);
    for (const std::uint32_t bit : {kView, kAdd, kChange})
        EXPECT_TRUE(record.Allows({AuthAuxOutput, bit}));
}

TEST(Authority, AllowsRightsWithoutAreaToEveryone)
{
    EXPECT_TRUE(AuthorityRecord().Allows(kAnyone));
    EXPECT_TRUE(AuthorityRecord().Allows(kAnyLogin));
    EXPECT_FALSE(kAnyone.NeedsLogin);
    EXPECT_TRUE(kAnyLogin.NeedsLogin);
    EXPECT_TRUE((Right{AuthCards, kView}).NeedsLogin);
}

TEST(Authority, KeepsOrderOfItsWords)
{
    const AuthorityArea areas[] = {AuthUsers,        AuthCardFormats, AuthCards,
                                   AuthAccessLevels, AuthDoors,       AuthDoorLock,
                                   AuthAuxOutput,    AuthThreatInfo,  AuthThreatLevel};
    for (std::size_t i = 0; i < 9; ++i)
        EXPECT_EQ(areas[i], i);
}

} // namespace
} // namespace nimbra
