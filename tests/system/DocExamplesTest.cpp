// Every example of docs/protocol.md, played against the real agent.

#include "support/DocExamples.h"

#include "simulator/scenario/Scenario.h"
#include "support/AgentTest.h"
#include "support/ExamplePlayer.h"
#include "support/Files.h"
#include "support/TestPanel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace nimbra::test {

static void PrintTo(const Example &example, std::ostream *out)
{
    *out << "docs/protocol.md:" << example.Line;
}

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// The Info of a block whose panel is two hours ahead of UTC.
constexpr char kAhead[] = "conversation UTC+2";

const std::vector<Example> &Examples()
{
    static const std::vector<Example> examples = [] {
        std::ifstream document(NIMBRA_PROTOCOL_DOCUMENT);
        return ReadExamples(document);
    }();
    return examples;
}

std::string NameOf(const ::testing::TestParamInfo<Example> &test)
{
    return test.param.Name;
}

/// The example with its last line that starts with `beginning` replaced. Fails the test if there is
/// no such line.
Example WithOther(Example example, const std::string &beginning, const std::string &line)
{
    const auto found =
        std::find_if(example.Lines.rbegin(), example.Lines.rend(),
                     [&beginning](const std::string &text) { return text.starts_with(beginning); });
    if (found == example.Lines.rend())
        ADD_FAILURE() << "no such line: " << beginning;
    else
        *found = line;
    return example;
}

/// The first example with this Info.
Example FirstOf(const std::string &info)
{
    const auto found =
        std::find_if(Examples().begin(), Examples().end(),
                     [&info](const Example &example) { return example.Info == info; });
    return found == Examples().end() ? Example() : *found;
}

/// The output that the document shows for a program: the block after it.
Example OutputOf(const Example &program)
{
    const auto found =
        std::find_if(Examples().begin(), Examples().end(), [&program](const Example &example) {
            return example.Info == "output" && example.Line > program.Line;
        });
    return found == Examples().end() ? Example() : *found;
}

// The reader of the document.

TEST(ExampleReader, FindsEachBlockWithItsHeadingAndLine)
{
    std::istringstream document("# 3. Local time, UTC\n```cloud\n> a\n\n# no heading\n```\ntext\n"
                                "## GetDoorInfo\n```python\n```\n```cloud\n```\n```cloud x\n```\n");
    const std::vector<Example> examples = ReadExamples(document);
    ASSERT_EQ(examples.size(), 4U);
    EXPECT_EQ(examples[0].Info, "cloud");
    EXPECT_EQ(examples[0].Heading, "3. Local time, UTC");
    EXPECT_EQ(examples[0].Name, "LocalTimeUTC");
    EXPECT_EQ(examples[0].Line, 2);
    EXPECT_THAT(examples[0].Lines, ElementsAre("> a", "", "# no heading"));
    EXPECT_EQ(examples[1].Name, "GetDoorInfo");
    EXPECT_EQ(examples[2].Name, "GetDoorInfo") << "numbered apart from those of other words";
    EXPECT_EQ(examples[3].Name, "GetDoorInfo_2");
    EXPECT_EQ(examples[3].Info, "cloud x");
    EXPECT_EQ(ExamplesOf(examples, "cloud").size(), 3U);
}

TEST(ExampleReader, MarksUnclosedBlock)
{
    std::istringstream document("```cloud\n> a\n");
    const std::vector<Example> examples = ReadExamples(document);
    ASSERT_EQ(examples.size(), 1U);
    EXPECT_EQ(examples[0].Info, "unclosed");
}

TEST(ExampleReader, FindsNothingInUnreadableDocument)
{
    std::ifstream document("/no/such/file");
    EXPECT_THAT(ReadExamples(document), IsEmpty());
}

// The document itself.

TEST(ProtocolDocument, HasOnlyKnownBlocks)
{
    const std::set<std::string> known{
        "conversation", "conversation anonymous", kAhead, "cloud", "discovery", "python", "output"};
    for (const Example &example : Examples())
        EXPECT_THAT(known, Contains(example.Info)) << ::testing::PrintToString(example);
}

TEST(ProtocolDocument, HasExamplesOfEveryKind)
{
    for (const char *word : {"conversation", "cloud", "discovery", "python", "output"})
        EXPECT_FALSE(ExamplesOf(Examples(), word).empty()) << word;
    EXPECT_EQ(ExamplesOf(Examples(), "python").size(), ExamplesOf(Examples(), "output").size());
}

TEST(ProtocolDocument, EachExampleExpectsSomething)
{
    for (const Example &example : Examples()) {
        if (example.Info == "python" || example.Info == "output")
            continue;
        const bool expects = std::any_of(
            example.Lines.begin(), example.Lines.end(), [&example](const std::string &line) {
                return line.starts_with(example.Info == "cloud" ? '>' : '<');
            });
        EXPECT_TRUE(expects) << ::testing::PrintToString(example);
    }
}

TEST(ProtocolDocument, ShowsEveryCommandInConversation)
{
    // A command's heading is its word, as the links of the table of all commands need it.
    std::set<std::string> headings;
    std::set<std::string> shown;
    std::ifstream document(NIMBRA_PROTOCOL_DOCUMENT);
    for (std::string line; std::getline(document, line);)
        for (std::size_t link = 0; (link = line.find("| [`", link)) != std::string::npos;) {
            const std::size_t begin = link + 4;
            link = line.find("`](#", begin);
            ASSERT_NE(link, std::string::npos) << line;
            headings.insert(line.substr(begin, link - begin));
        }
    for (const Example &example : ExamplesOf(Examples(), "conversation"))
        for (const std::string &line : example.Lines)
            if (line.starts_with("> "))
                shown.insert(line.substr(2, line.find('?') - 2));
    EXPECT_EQ(headings.size(), 38U);
    for (const std::string &heading : headings)
        EXPECT_THAT(shown, Contains(heading));
}

/// The formats of responses and rows in the text (in backquotes, with "%d" and "%s") as patterns.
std::set<std::string> DocumentedLines()
{
    std::set<std::string> patterns;
    std::ifstream document(NIMBRA_PROTOCOL_DOCUMENT);
    for (std::string line; std::getline(document, line);) {
        std::size_t begin = 0;
        while ((begin = line.find('`', begin)) != std::string::npos) {
            const std::size_t end = std::min(line.find('`', begin + 1), line.size());
            std::string text = line.substr(begin + 1, end - begin - 1);
            begin = end + 1;
            if (text.find("=%") == std::string::npos)
                continue;
            for (const char *gap : {"%d", "%s", "..."})
                for (std::size_t at = 0; (at = text.find(gap)) != std::string::npos;)
                    text.replace(at, std::string(gap).size(), "*");
            patterns.insert(text);
        }
    }
    return patterns;
}

TEST(ProtocolDocument, ShowsEveryDocumentedResponseInExample)
{
    std::set<std::string> answers;
    for (const Example &example : ExamplesOf(Examples(), "conversation"))
        for (const std::string &line : example.Lines)
            if (line.starts_with("< "))
                answers.insert(line.substr(2));
    const std::set<std::string> documented = DocumentedLines();
    EXPECT_GT(documented.size(), 20U);
    for (const std::string &pattern : documented) {
        std::string shown;
        EXPECT_TRUE(std::any_of(answers.begin(), answers.end(), [&](const std::string &answer) {
            return simulator::MatchScenarioText(pattern, answer, &shown);
        })) << pattern;
    }
}

// Conversations.

class ConversationPlayer : public AgentTest
{
protected:
    /// `info` is the Info of the block to be played.
    explicit ConversationPlayer(const std::string &info = "")
        : AgentTest({}, info == kAhead ? "UTC-2" : "UTC0") // POSIX counts westwards
    {}
    [[nodiscard]] std::string Play(const Example &example)
    {
        return PlayConversation(example, Connect(), NIMBRA_EXAMPLE_FILES);
    }
};

class Conversation : public ConversationPlayer, public ::testing::WithParamInterface<Example>
{
protected:
    Conversation() : ConversationPlayer(GetParam().Info) {}
};

TEST_P(Conversation, MatchesDocument)
{
    EXPECT_EQ(Play(GetParam()), "");
}

INSTANTIATE_TEST_SUITE_P(Protocol, Conversation,
                         ::testing::ValuesIn(ExamplesOf(Examples(), "conversation")), NameOf);

TEST_F(ConversationPlayer, ReportsDeviations)
{
    const Example example{"conversation", "", "", 1, {"> GetDoorLock?Port=2", "<3 GetDoorLock*"}};
    EXPECT_NE(Play(example), "") << "two lines too many";
    EXPECT_NE(Play(WithOther(example, "<", "< GetDoorLockResponse?Result=0&Status=0")), "");
    EXPECT_NE(Play(WithOther(example, "<", "silence 2")), "");
    EXPECT_NE(Play(WithOther(example, "<", "$ true")), "") << "no command belongs there";
    EXPECT_NE(Play(WithOther(example, "<", "GetDoorLockResponse?Result=0&Status=1")), "");
    EXPECT_EQ(Play(WithOther(example, "<", "< GetDoorLockResponse?Result=0&Status=1")), "");
}

TEST_F(ConversationPlayer, LogsInUnlessBlockIsAnonymous)
{
    Example example{"conversation", "", "", 1, {"> Heartbeat?", "< HeartbeatResponse?Result=0"}};
    EXPECT_EQ(Play(example), "");
    example.Info += " anonymous";
    EXPECT_EQ(Play(WithOther(example, "<", "silence 2")), "");
}

// The cloud link.

class CloudExamplePlayer : public ::testing::Test
{
protected:
    CloudPanel panel_;
    CloudPlayer player_;
    Agent agent_;
};

class CloudExample : public CloudExamplePlayer, public ::testing::WithParamInterface<Example>
{};

TEST_P(CloudExample, MatchesDocument)
{
    EXPECT_EQ(player_.Play(GetParam()), "");
}

INSTANTIATE_TEST_SUITE_P(Protocol, CloudExample,
                         ::testing::ValuesIn(ExamplesOf(Examples(), "cloud")), NameOf);

TEST_F(CloudExamplePlayer, ReportsUnexpectedRequest)
{
    EXPECT_THAT(player_.Play(WithOther(FirstOf("cloud"), "> HeartBeat?", "> HeartBeat?DeviceNo=8")),
                HasSubstr("expected: HeartBeat?DeviceNo=8"));
}

TEST_F(CloudExamplePlayer, ReportsMissingRequest)
{
    Example example = FirstOf("cloud");
    example.Lines.emplace_back("> HeartBeat?DeviceNo=7");
    EXPECT_THAT(player_.Play(example), HasSubstr("expected: HeartBeat?DeviceNo=7"));
}

// Discovery.

class DiscoveryPlayer : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(WaitUntil(IsDiscoveryOpen)); }

    TestPanel panel_;
    Agent agent_;
    DiscoveryProbe probe_;
};

class DiscoveryExample : public DiscoveryPlayer, public ::testing::WithParamInterface<Example>
{};

TEST_P(DiscoveryExample, MatchesDocument)
{
    EXPECT_EQ(PlayDiscovery(GetParam(), probe_), "");
}

INSTANTIATE_TEST_SUITE_P(Protocol, DiscoveryExample,
                         ::testing::ValuesIn(ExamplesOf(Examples(), "discovery")), NameOf);

TEST_F(DiscoveryPlayer, ReportsDeviations)
{
    const Example example{"discovery", "", "", 1, {"> Scan?Key=1", "< ScanResponse?*"}};
    EXPECT_EQ(PlayDiscovery(example, probe_), "");
    EXPECT_NE(PlayDiscovery(WithOther(example, "<", "< ScanResponse?Result=0&Key=2*"), probe_), "");
    EXPECT_NE(PlayDiscovery(WithOther(example, "<", "silence 5"), probe_), "");
    EXPECT_NE(PlayDiscovery(WithOther(example, "<", "nothing"), probe_), "");
}

// The client in Python.

class PythonPlayer : public AgentTest
{};

class PythonExample : public PythonPlayer, public ::testing::WithParamInterface<Example>
{};

TEST_P(PythonExample, PrintsDocumentedOutput)
{
    EXPECT_EQ(PlayPython(GetParam(), OutputOf(GetParam())), "");
}

INSTANTIATE_TEST_SUITE_P(Protocol, PythonExample,
                         ::testing::ValuesIn(ExamplesOf(Examples(), "python")), NameOf);

TEST_F(PythonPlayer, ReportsOtherOutputAndFailure)
{
    const Example output{"output", "", "", 1, {"hello*"}};
    EXPECT_EQ(PlayPython({"python", "", "", 1, {"print('hello you')"}}, output), "");
    EXPECT_NE(PlayPython({"python", "", "", 1, {"print('hell')"}}, output), "");
    EXPECT_NE(PlayPython({"python", "", "", 1, {"print('hello')", "exit(1)"}}, output), "");
}

} // namespace

} // namespace nimbra::test
