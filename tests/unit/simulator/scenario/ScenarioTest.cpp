#include "simulator/scenario/Scenario.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include <unistd.h>

namespace nimbra::simulator {
namespace {

std::string Shown(const std::string &pattern, const std::string &text)
{
    std::string shown;
    return MatchScenarioText(pattern, text, &shown) ? shown : "no match";
}

TEST(Scenario, MatchesTextWithoutStarsExactly)
{
    EXPECT_EQ(Shown("LoginResponse?Result=0", "LoginResponse?Result=0"), "LoginResponse?Result=0");
    EXPECT_EQ(Shown("LoginResponse?Result=0", "LoginResponse?Result=01"), "no match");
    EXPECT_EQ(Shown("LoginResponse?Result=0", "LoginResponse?Result="), "no match");
    EXPECT_EQ(Shown("", ""), "");
    EXPECT_EQ(Shown("", "x"), "no match");
}

TEST(Scenario, OneStarMatchesAnyTextAndShowsIt)
{
    EXPECT_EQ(Shown("Key=*", "Key=12"), "Key=12");
    EXPECT_EQ(Shown("Key=*", "Key="), "Key=");
    EXPECT_EQ(Shown("*&B=2&*", "A=1&B=2&C=3"), "A=1&B=2&C=3");
    EXPECT_EQ(Shown("*&B=2", "A=1&B=2&C=3"), "no match");
    EXPECT_EQ(Shown("*", ""), "");
}

TEST(Scenario, TwoStarsMatchAnyTextAndHideIt)
{
    EXPECT_EQ(Shown("Key=**", "Key=12"), "Key=**");
    EXPECT_EQ(Shown("A=**&B=*&C=**", "A=1&B=2&C=3"), "A=**&B=2&C=**");
}

TEST(Scenario, ReadsEachKindOfLine)
{
    struct Case
    {
        const char *Line;
        ScenarioAction Action;
        const char *Text;
        int Count;
    };
    const Case cases[] = {
        {"= A title", ScenarioAction::Title, "A title", 1},
        {": A word", ScenarioAction::Remark, "A word", 1},
        {"> Hello?", ScenarioAction::Send, "Hello?", 1},
        {">", ScenarioAction::Send, "", 1},
        {"< A=1", ScenarioAction::Expect, "A=1", 1},
        {"<25 EventNo=*", ScenarioAction::Expect, "EventNo=*", 25},
        {">file a.png", ScenarioAction::SendFile, "a.png", 1},
        {"<file a.png", ScenarioAction::ExpectFile, "a.png", 1},
        {"silence 2", ScenarioAction::Silence, "", 2},
        {"pause 11", ScenarioAction::Pause, "", 11},
        {"connect", ScenarioAction::Connect, "", 1},
        {"$ ls -l", ScenarioAction::Run, "ls -l", 1},
        {"| *.db", ScenarioAction::ExpectOutput, "*.db", 1},
        {"|3 *", ScenarioAction::ExpectOutput, "*", 3},
    };
    for (const Case &expected : cases) {
        const auto line = ParseScenarioLine(expected.Line);
        ASSERT_TRUE(line.has_value()) << expected.Line;
        EXPECT_EQ(line->Action, expected.Action) << expected.Line;
        EXPECT_EQ(line->Text, expected.Text) << expected.Line;
        EXPECT_EQ(line->Count, expected.Count) << expected.Line;
    }
}

TEST(Scenario, RefusesInvalidLine)
{
    for (const char *line : {"Hello?", ">Hello?", "<0 A", "<-1 A", "<99999999999999999999 A", "<x",
                             "silence", "silence x", "pause 1 more", "connect again", " > Hello?"})
        EXPECT_FALSE(ParseScenarioLine(line).has_value()) << line;
}

TEST(Scenario, SkipsCommentsAndEmptyLinesAndReportsInvalidLine)
{
    const std::string path = testing::TempDir() + "scenario-" + std::to_string(getpid());
    std::string error;
    std::ofstream(path) << "# words\n\n> Hello?\n";
    const auto scenario = ReadScenario(path, &error);
    std::ofstream(path) << "# words\nHello?\n";
    const auto bad = ReadScenario(path, &error);
    std::remove(path.c_str());

    ASSERT_TRUE(scenario.has_value());
    ASSERT_EQ(scenario->Lines.size(), 1U);
    EXPECT_EQ(scenario->Lines[0].Number, 3);
    EXPECT_FALSE(bad.has_value());
    EXPECT_EQ(error, path + ":2: not a line of a scenario: Hello?");
    EXPECT_FALSE(ReadScenario(path, &error).has_value());
    EXPECT_EQ(error, path + ": cannot be read");
}

} // namespace
} // namespace nimbra::simulator
