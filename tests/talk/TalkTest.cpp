#include "talk/Talk.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include <unistd.h>

namespace nimbra {
namespace {

std::string Shown(const std::string &pattern, const std::string &text)
{
    std::string shown;
    return MatchTalkText(pattern, text, &shown) ? shown : "no match";
}

TEST(Talk, MatchesTextWithoutStarsOnlyExactly)
{
    EXPECT_EQ(Shown("LoginResponse?Result=0", "LoginResponse?Result=0"), "LoginResponse?Result=0");
    EXPECT_EQ(Shown("LoginResponse?Result=0", "LoginResponse?Result=01"), "no match");
    EXPECT_EQ(Shown("LoginResponse?Result=0", "LoginResponse?Result="), "no match");
    EXPECT_EQ(Shown("", ""), "");
    EXPECT_EQ(Shown("", "x"), "no match");
}

TEST(Talk, OneStarStandsForAnyTextAndShowsIt)
{
    EXPECT_EQ(Shown("Key=*", "Key=12"), "Key=12");
    EXPECT_EQ(Shown("Key=*", "Key="), "Key=");
    EXPECT_EQ(Shown("*&B=2&*", "A=1&B=2&C=3"), "A=1&B=2&C=3");
    EXPECT_EQ(Shown("*&B=2", "A=1&B=2&C=3"), "no match");
    EXPECT_EQ(Shown("*", ""), "");
}

TEST(Talk, TwoStarsStandForAnyTextAndHideIt)
{
    EXPECT_EQ(Shown("Key=**", "Key=12"), "Key=**");
    EXPECT_EQ(Shown("A=**&B=*&C=**", "A=1&B=2&C=3"), "A=**&B=2&C=**");
}

TEST(Talk, ReadsEachKindOfLine)
{
    struct Case
    {
        const char *Line;
        TalkAction Action;
        const char *Text;
        int Count;
    };
    const Case cases[] = {
        {"= A title", TalkAction::Title, "A title", 1},
        {": A word", TalkAction::Remark, "A word", 1},
        {"> Hello?", TalkAction::Send, "Hello?", 1},
        {">", TalkAction::Send, "", 1},
        {"< A=1", TalkAction::Expect, "A=1", 1},
        {"<25 EventNo=*", TalkAction::Expect, "EventNo=*", 25},
        {">file a.png", TalkAction::SendFile, "a.png", 1},
        {"<file a.png", TalkAction::ExpectFile, "a.png", 1},
        {"silence 2", TalkAction::Silence, "", 2},
        {"pause 11", TalkAction::Pause, "", 11},
        {"connect", TalkAction::Connect, "", 1},
        {"$ ls -l", TalkAction::Run, "ls -l", 1},
        {"| *.db", TalkAction::ExpectOutput, "*.db", 1},
        {"|3 *", TalkAction::ExpectOutput, "*", 3},
    };
    for (const Case &expected : cases) {
        const auto line = ParseTalkLine(expected.Line);
        ASSERT_TRUE(line.has_value()) << expected.Line;
        EXPECT_EQ(line->Action, expected.Action) << expected.Line;
        EXPECT_EQ(line->Text, expected.Text) << expected.Line;
        EXPECT_EQ(line->Count, expected.Count) << expected.Line;
    }
}

TEST(Talk, RefusesWhatIsNoLine)
{
    for (const char *line : {"Hello?", ">Hello?", "<0 A", "<-1 A", "<99999999999999999999 A", "<x",
                             "silence", "silence x", "pause 1 more", "connect again", " > Hello?"})
        EXPECT_FALSE(ParseTalkLine(line).has_value()) << line;
}

TEST(Talk, SkipsCommentsAndEmptyLinesAndNamesTheBadLine)
{
    const std::string path = testing::TempDir() + "talk-" + std::to_string(getpid());
    std::string error;
    std::ofstream(path) << "# words\n\n> Hello?\n";
    const auto talk = ReadTalk(path, &error);
    std::ofstream(path) << "# words\nHello?\n";
    const auto bad = ReadTalk(path, &error);
    std::remove(path.c_str());

    ASSERT_TRUE(talk.has_value());
    ASSERT_EQ(talk->Lines.size(), 1U);
    EXPECT_EQ(talk->Lines[0].Number, 3);
    EXPECT_FALSE(bad.has_value());
    EXPECT_EQ(error, path + ":2: not a line of a talk: Hello?");
    EXPECT_FALSE(ReadTalk(path, &error).has_value());
    EXPECT_EQ(error, path + ": cannot be read");
}

} // namespace
} // namespace nimbra
