#include "simulator/scenario/Player.h"

#include "libnimbra-client/LineSocket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

namespace nimbra::simulator {
namespace {

/// The peer of a player's connections. Answers each line with the reply that is given for it.
class Peer
{
public:
    explicit Peer(std::map<std::string, std::string> replies) : replies_(std::move(replies)) {}
    ~Peer()
    {
        for (std::thread &thread : threads_)
            thread.join();
    }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    /// Makes a connection and returns the player's end.
    Descriptor Connect()
    {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
            return Descriptor();
        threads_.emplace_back([this, end = ends[1]] { Serve(LineSocket(Descriptor(end))); });
        return Descriptor(ends[0]);
    }

private:
    void Serve(LineSocket player) const
    {
        while (const std::optional<std::string> line = player.ReadLine()) {
            const auto reply = replies_.find(*line);
            if (reply != replies_.end() && !player.Send(reply->second))
                return;
        }
    }

    const std::map<std::string, std::string> replies_;
    std::vector<std::thread> threads_;
};

/// Plays `lines` against a peer with `replies`. Returns the output, followed by "passed" or
/// "failed".
std::string Play(const std::vector<std::string> &lines, std::map<std::string, std::string> replies,
                 int replySeconds = 60)
{
    Scenario scenario;
    scenario.Folder = testing::TempDir();
    for (const std::string &text : lines) {
        const auto line = ParseScenarioLine(text);
        EXPECT_TRUE(line.has_value()) << text;
        scenario.Lines.push_back(*line);
        scenario.Lines.back().Number = static_cast<int>(scenario.Lines.size());
    }
    Peer peer(std::move(replies));
    std::ostringstream out;
    PlayerOptions options;
    options.Connect = [&](std::string *) { return peer.Connect(); };
    options.Out = &out;
    options.ReplySeconds = replySeconds;
    const bool hasPassed = PlayScenario(scenario, options);
    return out.str() + (hasPassed ? "passed" : "failed");
}

TEST(Player, ShowsTextAndLinesWhenScenarioPasses)
{
    EXPECT_EQ(Play({"= Greeting", ": It has a key.", "> Hello?", "< Response?Key=**"},
                   {{"Hello?", "Response?Key=77\n"}}),
              "\nGreeting\n  It has a key.\n    --> Hello?\n    <-- Response?Key=**\npassed");
}

TEST(Player, ShowsUpTo5RowsAndFirst3OfMore)
{
    EXPECT_EQ(Play({"> Rows?", "<5 Row=*"}, {{"Rows?", "Row=1\nRow=2\nRow=3\nRow=4\nRow=5\n"}}),
              "    --> Rows?\n    <-- Row=1\n    <-- Row=2\n    <-- Row=3\n    <-- Row=4\n"
              "    <-- Row=5\npassed");
    EXPECT_EQ(
        Play({"> Rows?", "<6 Row=*"}, {{"Rows?", "Row=1\nRow=2\nRow=3\nRow=4\nRow=5\nRow=6\n"}}),
        "    --> Rows?\n    <-- Row=1\n    <-- Row=2\n    <-- Row=3\n"
        "    <-- (3 more like these)\npassed");
}

TEST(Player, ChecksRowsThatItDoesNotShow)
{
    EXPECT_EQ(
        Play({"> Rows?", "<6 Row=*"}, {{"Rows?", "Row=1\nRow=2\nRow=3\nRow=4\nLast\nRow=6\n"}}),
        "    --> Rows?\n    <-- Row=1\n    <-- Row=2\n    <-- Row=3\n"
        "    expected: Row=*\n    received: Last\n    at line 2 of the scenario\nfailed");
}

TEST(Player, FailsAndShowsBothWhenReplyDiffers)
{
    EXPECT_EQ(Play({"> Hello?", "< Good"}, {{"Hello?", "Bad\x1B\n"}}),
              "    --> Hello?\n    expected: Good\n    received: Bad\\x1B\n"
              "    at line 2 of the scenario\nfailed");
}

TEST(Player, FailsWhenReplyIsMissingOrIncomplete)
{
    EXPECT_EQ(Play({"> Hello?", "< Good"}, {}, 1),
              "    --> Hello?\n    expected: Good\n    received: nothing within the limit\n"
              "    at line 2 of the scenario\nfailed");
    EXPECT_EQ(Play({"> Hello?", "< Good"}, {{"Hello?", "Good"}}, 1),
              "    --> Hello?\n    expected: Good\n"
              "    received: Good and then nothing within the limit\n"
              "    at line 2 of the scenario\nfailed");
}

TEST(Player, FailsWhenPeerSendsMoreThanExpected)
{
    EXPECT_EQ(Play({"> Hello?", "< Good", "> Hello?"}, {{"Hello?", "Good\nMore\n"}}),
              "    --> Hello?\n    <-- Good\n    expected: nothing more\n"
              "    received: More\\x0A\n    at line 3 of the scenario\nfailed");
}

TEST(Player, PassesSilenceOnlyWhenNothingArrives)
{
    EXPECT_EQ(Play({"> Hush", "silence 1"}, {}), "    --> Hush\n    <-- (nothing for 1 s)\npassed");
    EXPECT_EQ(Play({"> Hello?", "silence 60"}, {{"Hello?", "Good\n"}}),
              "    --> Hello?\n    expected: nothing for 60 s\n    received: Good\\x0A\n"
              "    at line 2 of the scenario\nfailed");
}

TEST(Player, ConnectsAgainAsNewClient)
{
    EXPECT_EQ(Play({"> Hello?", "< Good", "connect", "> Hello?", "< Good"}, {{"Hello?", "Good\n"}}),
              "    --> Hello?\n    <-- Good\n    (a new client connects)\n"
              "    --> Hello?\n    <-- Good\npassed");
}

TEST(Player, ComparesCommandOutputWithScenario)
{
    EXPECT_EQ(Play({"$ printf 'a\\nb'", "| a", "| *"}, {}),
              "    $ printf 'a\\nb'\n    | a\n    | b\npassed");
    EXPECT_EQ(Play({"$ echo a; echo b", "| a"}, {}),
              "    $ echo a; echo b\n    | a\n    expected: no further line\n"
              "    received: b\n    at line 2 of the scenario\nfailed");
    EXPECT_EQ(Play({"$ false"}, {}),
              "    $ false\n    expected: a command that succeeds\n"
              "    received: one that fails\n    at line 1 of the scenario\nfailed");
}

TEST(Player, SendsFileAndComparesReceivedBytes)
{
    const std::string name = "scenario-image-" + std::to_string(getpid());
    const std::string path = testing::TempDir() + name;
    std::ofstream(path) << "ab\n";
    const std::vector<std::string> scenario = {">file " + name, "<file " + name};
    const std::string sent = "    --> (3 bytes: " + name + ")\n";
    const std::string good = Play(scenario, {{"ab", "ab\n"}});
    const std::string other = Play(scenario, {{"ab", "aX\n"}});
    const std::string tooShort = Play(scenario, {{"ab", "ab"}}, 1);
    std::remove(path.c_str());

    EXPECT_EQ(good, sent + "    <-- (3 bytes, the same as " + name + ")\npassed");
    EXPECT_EQ(other, sent + "    expected: the bytes of " + name +
                         "\n    received: bytes that differ from place 1\n"
                         "    at line 2 of the scenario\nfailed");
    EXPECT_EQ(tooShort, sent + "    expected: 3 bytes\n"
                               "    received: 2 bytes, then nothing within the limit\n"
                               "    at line 2 of the scenario\nfailed");
    EXPECT_THAT(Play(scenario, {}), testing::HasSubstr("expected: the file " + name));
}

TEST(Player, FailsWithoutConnection)
{
    Scenario scenario;
    scenario.Lines.push_back({ScenarioAction::Send, "Hello?", 1, 1});
    std::ostringstream out;
    PlayerOptions options;
    options.Connect = [](std::string *error) {
        *error = "Connection refused";
        return Descriptor();
    };
    options.Out = &out;
    EXPECT_FALSE(PlayScenario(scenario, options));
    EXPECT_EQ(out.str(), "    expected: a connection\n    received: Connection refused\n"
                         "    at line 1 of the scenario\n");
}

} // namespace
} // namespace nimbra::simulator
