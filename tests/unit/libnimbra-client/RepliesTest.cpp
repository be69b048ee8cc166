#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nimbra-client/Replies.h>
#include <nimbra-client/Results.h>

namespace nimbra::client {

namespace {

TEST(ClientReplies, ListEveryCommandOnce)
{
    EXPECT_EQ(AllReplies().size(), 38U);
    for (const Reply &reply : AllReplies())
        EXPECT_EQ(FindReply(reply.Word), &reply) << reply.Word;
}

TEST(ClientReplies, FindCommandsInAnyCase)
{
    EXPECT_EQ(FindReply("getdoorinfo"), FindReply("GetDoorInfo"));
    EXPECT_NE(FindReply("GetDoorInfo"), nullptr);
    EXPECT_EQ(FindReply("GetNothing"), nullptr);
}

TEST(ClientReplies, ExplainEveryResultInASentence)
{
    for (const Reply &reply : AllReplies())
        for (const int result : {0, 1, 2, 3, 9, 77})
            EXPECT_THAT(MeaningOf(reply.Word, result), ::testing::EndsWith("."))
                << reply.Word << " " << result;
}

} // namespace

} // namespace nimbra::client
