#include "data/Authority.h"

#include <climits>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>

namespace nimbra {
namespace {

using Words = std::array<std::uint32_t, 9>;

/// The words of a role that has one row: what the panel's forms mean, form by form.
Words Expected(int form, int authority)
{
    //               users formats cards levels doors lock aux info threat
    const Words none = {0, 0, 0, 0, 0, 0, 0, 0, 0};
    switch (form) {
    case 1:
        if (authority == 24)
            return {0, 0, 0, 0, 0, 15, 0, 0, 0};
        if (authority == 25)
            return {0, 0, 0, 0, 0, 0, 15, 0, 0};
        return none;
    case 3:
        if (authority == 0)
            return {1, 0, 0, 0, 0, 0, 0, 0, 0};
        if (authority == 1)
            return {2, 0, 0, 0, 0, 0, 0, 0, 0};
        if (authority == 2)
            return {4, 0, 0, 0, 0, 0, 0, 0, 0};
        return none;
    case 4:
        if (authority == 0)
            return {0, 0, 1, 0, 0, 0, 0, 0, 0};
        if (authority == 1)
            return {0, 0, 2, 0, 0, 0, 0, 0, 0};
        if (authority == 2)
            return {0, 0, 4, 0, 0, 0, 0, 0, 0};
        return none;
    case 5:
        if (authority == 0)
            return {0, 1, 0, 0, 0, 0, 0, 0, 0};
        if (authority == 1)
            return {0, 2, 0, 0, 0, 0, 0, 0, 0};
        if (authority == 2)
            return {0, 4, 0, 0, 0, 0, 0, 0, 0};
        return none;
    case 6:
        if (authority == 0)
            return {0, 0, 0, 1, 0, 0, 0, 0, 0};
        if (authority == 1)
            return {0, 0, 0, 2, 0, 0, 0, 0, 0};
        if (authority == 2)
            return {0, 0, 0, 4, 0, 0, 0, 0, 0};
        return none;
    case 10:
        if (authority == 0)
            return {0, 0, 0, 0, 0, 0, 0, 0, 1};
        if (authority == 3)
            return {0, 0, 0, 0, 0, 0, 0, 0, 4};
        return none;
    case 11:
        if (authority == 0)
            return {0, 0, 0, 0, 0, 0, 0, 1, 0};
        if (authority == 2)
            return {0, 0, 0, 0, 0, 0, 0, 4, 0};
        return none;
    case 41:
        if (authority == 0)
            return {0, 0, 0, 0, 1, 0, 0, 0, 0};
        if (authority == 3)
            return {0, 0, 0, 0, 4, 0, 0, 0, 0};
        return none;
    default:
        return none;
    }
}

TEST(Authority, GrantsNothingAtFirst)
{
    EXPECT_EQ(AuthorityRecord().Words, Words());
}

TEST(Authority, GrantsWhatEachRowOfARoleMeans)
{
    for (int form = 0; form <= 60; ++form)
        for (int authority = -1; authority <= 30; ++authority) {
            AuthorityRecord record;
            record.GrantRoleRight(form, authority);
            EXPECT_EQ(record.Words, Expected(form, authority)) << form << ", " << authority;
        }
}

TEST(Authority, GrantsNothingForNumbersOfNoForm)
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

TEST(Authority, AddsUpTheRowsOfARole)
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

TEST(Authority, GrantsTheControllerEverything)
{
    AuthorityRecord record;
    record.GrantRoleRight(3, 0);
    record.GrantAll();
    Words all;
    all.fill(15);
    EXPECT_EQ(record.Words, all);
}

TEST(Authority, AllowsWhatABitOfAWordGrants)
{
    AuthorityRecord record;
    record.GrantRoleRight(4, 0);
    record.GrantRoleRight(4, 2);
    EXPECT_TRUE(record.Allows(AuthCards, kView));
    EXPECT_FALSE(record.Allows(AuthCards, kAdd));
    EXPECT_TRUE(record.Allows(AuthCards, kChange));
    EXPECT_FALSE(record.Allows(AuthUsers, kView));
    record.GrantRoleRight(1, 25);
    for (const std::uint32_t bit : {kView, kAdd, kChange})
        EXPECT_TRUE(record.Allows(AuthAuxOutput, bit));
}

TEST(Authority, KeepsTheOrderOfItsWords)
{
    const AuthorityArea areas[] = {AuthUsers,        AuthCardFormats, AuthCards,
                                   AuthAccessLevels, AuthDoors,       AuthDoorLock,
                                   AuthAuxOutput,    AuthThreatInfo,  AuthThreatLevel};
    for (std::size_t i = 0; i < 9; ++i)
        EXPECT_EQ(areas[i], i);
}

} // namespace
} // namespace nimbra
