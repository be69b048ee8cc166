// Every example of docs/protocol.md, played against the real agent.

#include "support/DocExamples.h"

#include "simulator/scenario/Scenario.h"
#include "support/AgentTest.h"
#include "support/ExamplePlayer.h"
#include "support/Files.h"
#include "support/TestPanel.h"

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

/// The mark of a block whose panel is two hours ahead of UTC.
constexpr char kAhead[] = "conversation UTC+2";

const std::vector<Example> &Book()
{
    static const std::vector<Example> book = [] {
        std::ifstream document(NIMBRA_BOOK_PATH);
        return ReadBook(document);
    }();
    return book;
}

std::string NameOf(const ::testing::TestParamInfo<Example> &test)
{
    return test.param.Name;
}

/// The example with its last line of this beginning replaced; a beginning that no line has fails
/// the test.
Example WithOther(Example example, const std::string &beginning, const std::string &line)
{
    const auto found = std::find_if(
        example.Lines.rbegin(), example.Lines.rend(),
        [&beginning](const std::string &text) { return text.rfind(beginning, 0) == 0; });
    if (found == example.Lines.rend())
        ADD_FAILURE() << "no such line: " << beginning;
    else
        *found = line;
    return example;
}

/// The first example whose fence is this one.
Example FirstOf(const std::string &fence)
{
    const auto found = std::find_if(Book().begin(), Book().end(), [&fence](const Example &example) {
        return example.Fence == fence;
    });
    return found == Book().end() ? Example() : *found;
}

/// The output that a program's block promises: the block behind it.
Example OutputOf(const Example &program)
{
    const auto found =
        std::find_if(Book().begin(), Book().end(), [&program](const Example &example) {
            return example.Fence == "output" && example.Line > program.Line;
        });
    return found == Book().end() ? Example() : *found;
}

// The reader of the document.

TEST(BookReader, FindsEachBlockWithItsHeadingAndLine)
{
    std::istringstream document("# 3. Local time, UTC\n```cloud\n> a\n\n# no heading\n```\ntext\n"
                                "## GetDoorInfo\n```python\n```\n```cloud\n```\n```cloud x\n```\n");
    const std::vector<Example> book = ReadBook(document);
    ASSERT_EQ(book.size(), 4U);
    EXPECT_EQ(book[0].Fence, "cloud");
    EXPECT_EQ(book[0].Heading, "3. Local time, UTC");
    EXPECT_EQ(book[0].Name, "LocalTimeUTC");
    EXPECT_EQ(book[0].Line, 2);
    EXPECT_EQ(book[0].Lines, (std::vector<std::string>{"> a", "", "# no heading"}));
    EXPECT_EQ(book[1].Name, "GetDoorInfo");
    EXPECT_EQ(book[2].Name, "GetDoorInfo") << "numbered apart from those of other words";
    EXPECT_EQ(book[3].Name, "GetDoorInfo_2");
    EXPECT_EQ(book[3].Fence, "cloud x");
    EXPECT_EQ(ExamplesOf(book, "cloud").size(), 3U);
}

TEST(BookReader, TellsOfAFenceThatIsNeverClosed)
{
    std::istringstream document("```cloud\n> a\n");
    const std::vector<Example> book = ReadBook(document);
    ASSERT_EQ(book.size(), 1U);
    EXPECT_EQ(book[0].Fence, "unclosed");
}

TEST(BookReader, FindsNothingInADocumentThatCannotBeRead)
{
    std::ifstream document("/no/such/file");
    EXPECT_TRUE(ReadBook(document).empty());
}

// The document itself.

TEST(ProtocolBook, HasOnlyBlocksThatArePlayed)
{
    const std::set<std::string> known{
        "conversation", "conversation anonymous", kAhead, "cloud", "discovery", "python", "output"};
    for (const Example &example : Book())
        EXPECT_EQ(known.count(example.Fence), 1U)
            << "an unknown block: " << example.Fence << " at " << ::testing::PrintToString(example);
}

TEST(ProtocolBook, HasExamplesOfEveryKind)
{
    for (const char *word : {"conversation", "cloud", "discovery", "python", "output"})
        EXPECT_FALSE(ExamplesOf(Book(), word).empty()) << word;
    EXPECT_EQ(ExamplesOf(Book(), "python").size(), ExamplesOf(Book(), "output").size());
}

TEST(ProtocolBook, HasNoExampleThatExpectsNothing)
{
    for (const Example &example : Book()) {
        if (example.Fence == "python" || example.Fence == "output")
            continue;
        const bool expects = std::any_of(
            example.Lines.begin(), example.Lines.end(), [&example](const std::string &line) {
                return line.rfind(example.Fence == "cloud" ? '>' : '<', 0) == 0;
            });
        EXPECT_TRUE(expects) << ::testing::PrintToString(example);
    }
}

TEST(ProtocolBook, ShowsEveryCommandUnderItsHeadingInAConversation)
{
    // A command's heading is its word, as the links of the table of all commands need it.
    std::set<std::string> headings;
    std::set<std::string> shown;
    std::ifstream document(NIMBRA_BOOK_PATH);
    for (std::string line; std::getline(document, line);)
        for (std::size_t link = 0; (link = line.find("| [`", link)) != std::string::npos;) {
            const std::size_t begin = link + 4;
            link = line.find("`](#", begin);
            ASSERT_NE(link, std::string::npos) << line;
            headings.insert(line.substr(begin, link - begin));
        }
    for (const Example &example : ExamplesOf(Book(), "conversation"))
        for (const std::string &line : example.Lines)
            if (line.rfind("> ", 0) == 0)
                shown.insert(line.substr(2, line.find('?') - 2));
    EXPECT_EQ(headings.size(), 38U);
    for (const std::string &heading : headings)
        EXPECT_EQ(shown.count(heading), 1U) << heading;
}

/// The answers and rows that the text promises: what stands in backquotes with "%d" and "%s", as
/// patterns.
std::set<std::string> PromisedLines()
{
    std::set<std::string> patterns;
    std::ifstream document(NIMBRA_BOOK_PATH);
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

TEST(ProtocolBook, PromisesNoAnswerThatNoExampleShows)
{
    std::set<std::string> answers;
    for (const Example &example : ExamplesOf(Book(), "conversation"))
        for (const std::string &line : example.Lines)
            if (line.rfind("< ", 0) == 0)
                answers.insert(line.substr(2));
    const std::set<std::string> promised = PromisedLines();
    EXPECT_GT(promised.size(), 20U);
    for (const std::string &pattern : promised) {
        std::string shown;
        EXPECT_TRUE(std::any_of(answers.begin(), answers.end(), [&](const std::string &answer) {
            return MatchScenarioText(pattern, answer, &shown);
        })) << pattern;
    }
}

// Conversations.

class ConversationPlayer : public AgentTest
{
protected:
    /// `fence` is that of the block to be played.
    explicit ConversationPlayer(const std::string &fence = "")
        : AgentTest({}, fence == kAhead ? "UTC-2" : "UTC0") // POSIX counts westwards
    {}
    [[nodiscard]] std::string Play(const Example &example)
    {
        return PlayConversation(example, Connect(), NIMBRA_BOOK_FILES);
    }
};

class Conversation : public ConversationPlayer, public ::testing::WithParamInterface<Example>
{
protected:
    Conversation() : ConversationPlayer(GetParam().Fence) {}
};

TEST_P(Conversation, GoesAsWritten)
{
    EXPECT_EQ(Play(GetParam()), "");
}

INSTANTIATE_TEST_SUITE_P(Book, Conversation,
                         ::testing::ValuesIn(ExamplesOf(Book(), "conversation")), NameOf);

TEST_F(ConversationPlayer, NoticesWhatIsNotAsWritten)
{
    const Example example{"conversation", "", "", 1, {"> GetDoorLock?Port=2", "<3 GetDoorLock*"}};
    EXPECT_NE(Play(example), "") << "two lines too many";
    EXPECT_NE(Play(WithOther(example, "<", "< GetDoorLockResponse?Result=0&Status=0")), "");
    EXPECT_NE(Play(WithOther(example, "<", "silence 2")), "");
    EXPECT_NE(Play(WithOther(example, "<", "$ true")), "") << "no command belongs there";
    EXPECT_NE(Play(WithOther(example, "<", "GetDoorLockResponse?Result=0&Status=1")), "");
    EXPECT_EQ(Play(WithOther(example, "<", "< GetDoorLockResponse?Result=0&Status=1")), "");
}

TEST_F(ConversationPlayer, LogsInUnlessTheBlockSaysAnonymous)
{
    Example example{"conversation", "", "", 1, {"> Heartbeat?", "< HeartbeatResponse?Result=0"}};
    EXPECT_EQ(Play(example), "");
    example.Fence += " anonymous";
    EXPECT_EQ(Play(WithOther(example, "<", "silence 2")), "");
}

// The cloud link.

class CloudBookPlayer : public ::testing::Test
{
protected:
    CloudBookPlayer() { NameHost("127.0.0.1", "cloud.nimbra.example"); }

    TestPanel panel{{}, true};
    CloudPlayer player;
    Agent agent;
};

class CloudExample : public CloudBookPlayer, public ::testing::WithParamInterface<Example>
{};

TEST_P(CloudExample, GoesAsWritten)
{
    EXPECT_EQ(player.Play(GetParam()), "");
}

INSTANTIATE_TEST_SUITE_P(Book, CloudExample, ::testing::ValuesIn(ExamplesOf(Book(), "cloud")),
                         NameOf);

TEST_F(CloudBookPlayer, NoticesARequestThatIsNotAsWritten)
{
    EXPECT_NE(player.Play(WithOther(FirstOf("cloud"), "> HeartBeat?", "> HeartBeat?DeviceNo=8")),
              "");
}

TEST_F(CloudBookPlayer, NoticesALineThatTheAgentDoesNotSend)
{
    Example example = FirstOf("cloud");
    example.Lines.emplace_back("> HeartBeat?DeviceNo=7");
    EXPECT_NE(player.Play(example), "");
}

// Discovery.

class DiscoveryPlayer : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(WaitUntil(
            [] { return ReadFile("/proc/net/udp").find(":25E5 ") != std::string::npos; }));
    }

    TestPanel panel;
    Agent agent;
    DiscoveryProbe probe;
};

class DiscoveryExample : public DiscoveryPlayer, public ::testing::WithParamInterface<Example>
{};

TEST_P(DiscoveryExample, GoesAsWritten)
{
    EXPECT_EQ(PlayDiscovery(GetParam(), probe), "");
}

INSTANTIATE_TEST_SUITE_P(Book, DiscoveryExample,
                         ::testing::ValuesIn(ExamplesOf(Book(), "discovery")), NameOf);

TEST_F(DiscoveryPlayer, NoticesWhatIsNotAsWritten)
{
    const Example example{"discovery", "", "", 1, {"> Scan?Key=1", "< ScanResponse?*"}};
    EXPECT_EQ(PlayDiscovery(example, probe), "");
    EXPECT_NE(PlayDiscovery(WithOther(example, "<", "< ScanResponse?Result=0&Key=2*"), probe), "");
    EXPECT_NE(PlayDiscovery(WithOther(example, "<", "silence 5"), probe), "");
    EXPECT_NE(PlayDiscovery(WithOther(example, "<", "nothing"), probe), "");
}

// The client in Python.

class PythonPlayer : public AgentTest
{};

class PythonExample : public PythonPlayer, public ::testing::WithParamInterface<Example>
{};

TEST_P(PythonExample, PrintsWhatTheBookSays)
{
    EXPECT_EQ(PlayPython(GetParam(), OutputOf(GetParam())), "");
}

INSTANTIATE_TEST_SUITE_P(Book, PythonExample, ::testing::ValuesIn(ExamplesOf(Book(), "python")),
                         NameOf);

TEST_F(PythonPlayer, NoticesOtherOutputAndFailure)
{
    const Example output{"output", "", "", 1, {"hello*"}};
    EXPECT_EQ(PlayPython({"python", "", "", 1, {"print('hello you')"}}, output), "");
    EXPECT_NE(PlayPython({"python", "", "", 1, {"print('hell')"}}, output), "");
    EXPECT_NE(PlayPython({"python", "", "", 1, {"print('hello')", "exit(1)"}}, output), "");
}

} // namespace

} // namespace nimbra::test
