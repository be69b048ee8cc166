// Every example of docs/nimbractl.md, played against the real agent.

#include "support/AgentTest.h"
#include "support/DocExamples.h"
#include "support/ExamplePlayer.h"
#include "support/Files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace nimbra::test {

static void PrintTo(const Example &example, std::ostream *out)
{
    *out << "docs/nimbractl.md:" << example.Line;
}

namespace {

using ::testing::Contains;

const std::vector<Example> &Guide()
{
    static const std::vector<Example> guide = [] {
        std::ifstream document(NIMBRA_GUIDE_PATH);
        return ReadExamples(document);
    }();
    return guide;
}

TEST(Guide, HasOnlyKnownBlocks)
{
    const std::set<std::string> known{"console", "cpp", "ini", "sh"};
    for (const Example &example : Guide())
        EXPECT_THAT(known, Contains(example.Info)) << ::testing::PrintToString(example);
    EXPECT_FALSE(ExamplesOf(Guide(), "console").empty());
}

TEST(Guide, ShowsLibraryExampleUnchanged)
{
    const std::vector<Example> programs = ExamplesOf(Guide(), "cpp");
    ASSERT_EQ(programs.size(), 1U);
    std::string shown;
    for (const std::string &line : programs[0].Lines)
        shown += line + "\n";
    EXPECT_EQ(shown, ReadFile(NIMBRA_EXAMPLE_PATH));
    EXPECT_LT(programs[0].Lines.size(), 40U);
}

/// A panel, and the configuration file that the guide shows.
class ConsolePlayer : public AgentTest
{
protected:
    ConsolePlayer()
    {
        std::string config;
        for (const Example &example : ExamplesOf(Guide(), "ini"))
            for (const std::string &line : example.Lines)
                config += line + "\n";
        std::filesystem::create_directories("/tmp/.config/nimbractl");
        WriteFile("/tmp/.config/nimbractl/config", config);
    }
};

class GuideExample : public ConsolePlayer, public ::testing::WithParamInterface<Example>
{};

TEST_P(GuideExample, MatchesDocument)
{
    EXPECT_EQ(PlayConsole(GetParam()), "");
}

INSTANTIATE_TEST_SUITE_P(Document, GuideExample,
                         ::testing::ValuesIn(ExamplesOf(Guide(), "console")),
                         [](const auto &test) { return test.param.Name; });

TEST_F(ConsolePlayer, ReportsDeviations)
{
    const auto play = [](const std::vector<std::string> &lines) {
        return PlayConsole({"console", "", "", 1, lines});
    };
    EXPECT_EQ(play({"$ nimbractl threat get", "ThreatLevel  *", "$ false", "$ echo 'a' $?", "a 1"}),
              "");
    EXPECT_NE(play({"$ nimbractl threat get", "ThreatLevel  2"}), "");
    EXPECT_NE(play({"$ nimbractl threat get"}), "") << "a line too few";
    EXPECT_NE(play({"$ nimbractl threat get", "*", "*"}), "") << "a line too many";
}

} // namespace

} // namespace nimbra::test
