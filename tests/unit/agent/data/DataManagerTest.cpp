#include "data/DataManager.h"

#include <gtest/gtest.h>

#include <string>

namespace nimbra {
namespace {

std::string Hash(const std::string &text)
{
    return DataManager::HashPassword(text.c_str()).Get();
}

TEST(DataManager, GetInstanceAlwaysReturnsSameObject)
{
    ASSERT_NE(DataManager::GetInstance(), nullptr);
    EXPECT_EQ(DataManager::GetInstance(), DataManager::GetInstance());
}

TEST(DataManager, HashesPasswordsWithSha256InUpperCase)
{
    EXPECT_EQ(Hash(""), "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855");
    EXPECT_EQ(Hash("abc"), "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
    EXPECT_EQ(Hash("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248D6A61D20638B8E5C026930C3E6039A33CE45964FF2167F6ECEDD419DB06C1");
    EXPECT_EQ(Hash(std::string(1000000, 'a')),
              "CDC76E5C9914FB9281A1C7E284D73E67F1809A48A497200E046D39CCC7112CD0");
}

TEST(DataManager, HashesEveryByteOfPassword)
{
    EXPECT_NE(Hash("secret"), Hash("secret\r"));
    EXPECT_NE(Hash("secret"), Hash("Secret"));
    EXPECT_NE(Hash("secret"), Hash("secret "));
    EXPECT_EQ(Hash("\xff"), "A8100AE6AA1940D0B663BB31CD466142EBBDBD5187131B92D93818987832EB89");
}

} // namespace
} // namespace nimbra
