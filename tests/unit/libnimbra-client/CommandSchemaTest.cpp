#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include <nimbra-client/CommandSchema.h>
#include <nimbra-client/ResultMessage.h>

namespace nimbra::client {

namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

TEST(ClientCommandSchema, ListsEveryCommandOnce)
{
    EXPECT_EQ(CommandSchemas().size(), 38U);
    for (const CommandSchema &schema : CommandSchemas())
        EXPECT_EQ(FindCommandSchema(schema.Word), &schema) << schema.Word;
}

TEST(ClientCommandSchema, FindsCommandsInAnyCase)
{
    EXPECT_EQ(FindCommandSchema("getdoorinfo"), FindCommandSchema("GetDoorInfo"));
    EXPECT_NE(FindCommandSchema("GetDoorInfo"), nullptr);
    EXPECT_EQ(FindCommandSchema("GetNothing"), nullptr);
}

TEST(ClientCommandSchema, ExplainsEveryResultInOneSentence)
{
    for (const CommandSchema &schema : CommandSchemas())
        for (const int result : {0, 1, 2, 3, 9, 77})
            EXPECT_THAT(ResultMessage(schema.Word, result),
                        AllOf(EndsWith("."), Not(HasSubstr(". "))))
                << schema.Word << " " << result;
}

TEST(ClientCommandSchema, ExplainsEachResultInItsOwnWords)
{
    for (const CommandSchema &schema : CommandSchemas()) {
        const std::set<std::string> messages = {
            ResultMessage(schema.Word, 0), ResultMessage(schema.Word, 1),
            ResultMessage(schema.Word, 9), ResultMessage(schema.Word, 77)};
        EXPECT_EQ(messages.size(), 4U) << schema.Word;
    }
}

} // namespace

} // namespace nimbra::client
