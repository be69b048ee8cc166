#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nimbra-client/CommandSchema.h>
#include <nimbra-client/ResultMessage.h>

namespace nimbra::client {

namespace {

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
            EXPECT_THAT(ResultMessage(schema.Word, result), ::testing::EndsWith("."))
                << schema.Word << " " << result;
}

} // namespace

} // namespace nimbra::client
