#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include <nimbra-client/Error.h>
#include <nimbra-client/Request.h>

namespace nimbra::client {

namespace {

TEST(ClientRequest, IsOneLineOfPairs)
{
    EXPECT_EQ(Request("Heartbeat").Line(), "Heartbeat?");
    EXPECT_EQ(Request("AddUserInfo")
                  .Text("FirstName", "What?")
                  .Text("MiddleName", "")
                  .Text("LastName", "O'Brien = x")
                  .Number("Ada", -1)
                  .Line(),
              "AddUserInfo?FirstName=What?&LastName=O''Brien = x&Ada=-1");
    EXPECT_EQ(Request("Login").RawText("Password", "it's", kPasswordBytes).Line(),
              "Login?Password=it's");
}

class RefusedText : public ::testing::TestWithParam<std::string>
{};

TEST_P(RefusedText, ThrowsRequestError)
{
    EXPECT_THROW(Request("AddUserInfo").Text("LastName", GetParam()), RequestError);
}

INSTANTIATE_TEST_SUITE_P(ClientRequest, RefusedText,
                         ::testing::Values("Salt & Pepper", "two\nlines", std::string("a\0b", 3),
                                           "Othello?", "see deluserinfo? there",
                                           std::string(33, 'x'), std::string(31, 'x') + "'"));

TEST(ClientRequest, CountsDoubledQuoteAsTwoBytes)
{
    EXPECT_NO_THROW(Request("AddUserInfo").Text("LastName", std::string(30, 'x') + "'"));
}

TEST(ClientRequest, ThrowsRequestErrorWhenLineIsTooLong)
{
    Request request("SetCardAccessLevel");
    request.RawText("AccessLevelNo", std::string(1010, '1'), kRequestBytes);
    EXPECT_THROW(static_cast<void>(request.Line()), RequestError);
}

} // namespace

} // namespace nimbra::client
