// nimbractl on a terminal: the password's prompt, the progress bar, colours, and the shell.

#include "support/Files.h"
#include "support/NimbractlTest.h"
#include "support/Terminal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace nimbra::test {

namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;

using NimbractlTerminal = NimbractlTest;

std::vector<std::string> WithoutPassword()
{
    return {"NIMBRA_HOST=127.0.0.1", "NIMBRA_USER=admin"};
}

std::vector<std::string> WithPassword()
{
    return {"NIMBRA_HOST=127.0.0.1", "NIMBRA_USER=admin", "NIMBRA_PASSWORD=admin1234"};
}

constexpr char kPrompt[] = "127.0.0.1> ";
constexpr char kControlC[] = "\x03";
constexpr char kControlD[] = "\x04";
constexpr char kArrowUp[] = "\033[A";

/// A shell on a terminal, at its prompt.
class NimbractlShell : public NimbractlTest
{
protected:
    NimbractlShell() : terminal_(CtlCommand({"shell"}, WithPassword()))
    {
        EXPECT_TRUE(terminal_.WaitFor(kPrompt)) << terminal_.Output();
    }

    /// Types a line and waits for a text of its output, and for the next prompt.
    void Do(const std::string &line, const std::string &output)
    {
        terminal_.Type(line + "\n");
        EXPECT_TRUE(terminal_.WaitFor(output)) << terminal_.Output();
        EXPECT_TRUE(terminal_.WaitFor(kPrompt)) << terminal_.Output();
    }

    [[nodiscard]] std::size_t Logins() const
    {
        const std::vector<panel::Call> calls = panel_.Calls();
        return static_cast<std::size_t>(
            std::count_if(calls.begin(), calls.end(), [](const panel::Call &call) {
                return call.size() > 4 && call[4] == "15107";
            }));
    }

    Terminal terminal_;
};

TEST_F(NimbractlTerminal, PasswordIsAskedForWithoutEcho)
{
    Terminal terminal(CtlCommand({"threat", "get"}, WithoutPassword()));
    ASSERT_TRUE(terminal.WaitFor("Password of admin at 127.0.0.1: "));
    EXPECT_FALSE(terminal.HasEcho());
    terminal.Type("admin1234\n");
    EXPECT_EQ(terminal.WaitForExit(), 0);
    EXPECT_TRUE(terminal.WaitFor("ThreatLevel")) << terminal.Output();
    EXPECT_THAT(terminal.Output(), Not(HasSubstr("admin1234")));
    EXPECT_TRUE(terminal.IsAsBefore());
}

TEST_F(NimbractlTerminal, WrongPasswordAtPromptIsRefused)
{
    Terminal terminal(CtlCommand({"threat", "get"}, WithoutPassword()));
    ASSERT_TRUE(terminal.WaitFor("Password of admin"));
    terminal.Type("wrong\n");
    EXPECT_EQ(terminal.WaitForExit(), 1);
    EXPECT_TRUE(terminal.WaitFor("password is wrong")) << terminal.Output();
}

TEST(NimbractlPrompt, SignalsEndItAndLeaveTheTerminalAsItWas)
{
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        Terminal terminal(CtlCommand({"threat", "get"}, WithoutPassword()));
        ASSERT_TRUE(terminal.WaitFor("Password of admin"));
        EXPECT_FALSE(terminal.HasEcho());
        if (signal == SIGINT)
            terminal.Type(std::string("admin") + kControlC);
        else
            terminal.Signal(signal);
        EXPECT_EQ(terminal.WaitForExit(), -signal);
        EXPECT_TRUE(terminal.IsAsBefore());
    }
}

TEST(NimbractlPrompt, NoPasswordIsWrongUsage)
{
    Terminal terminal(CtlCommand({"threat", "get"}, WithoutPassword()));
    ASSERT_TRUE(terminal.WaitFor("Password of admin"));
    terminal.Type("\n");
    EXPECT_EQ(terminal.WaitForExit(), 2);
    EXPECT_TRUE(terminal.WaitFor("No password was given"));
}

TEST_F(NimbractlTerminal, TransferShowsProgressOnTerminalOnly)
{
    WriteFile("/tmp/face.png", std::string(400000, 'x'));
    Terminal put(CtlCommand({"users", "photo", "put", "7", "/tmp/face.png"}, WithPassword()));
    EXPECT_EQ(put.WaitForExit(), 0);
    EXPECT_TRUE(put.WaitFor("\rSending [")) << put.Output();
    EXPECT_TRUE(put.WaitFor("##] 100%\r\nUser 7 has the photo")) << put.Output();
    Terminal get(CtlCommand({"users", "photo", "get", "7", "/tmp/back.png"}, WithPassword()));
    EXPECT_EQ(get.WaitForExit(), 0);
    EXPECT_TRUE(get.WaitFor("\rReceiving [")) << get.Output();
    EXPECT_TRUE(get.WaitFor("##] 100%")) << get.Output();
    EXPECT_EQ(RunCtl({"users", "photo", "put", "7", "/tmp/face.png"}).Output,
              "User 7 has the photo user0007.png of 400000 bytes.\n");
}

/// Runs nimbractl on a terminal of this width and returns its output.
std::string OutputAtWidth(int columns, const std::vector<std::string> &words)
{
    std::vector<std::string> environment = WithPassword();
    environment.insert(environment.end(),
                       {"COLUMNS=" + std::to_string(columns), "NO_COLOR=1", "LC_ALL=C.UTF-8"});
    Terminal terminal(CtlCommand(words, environment));
    EXPECT_EQ(terminal.WaitForExit(), 0);
    return terminal.Output();
}

TEST_F(NimbractlTerminal, TableFitsTheTerminal)
{
    panel_.Run("UPDATE Door SET Name='A door with a long name' WHERE No=1");
    EXPECT_THAT(OutputAtWidth(30, {"doors", "list", "--limit", "2"}),
                HasSubstr("DoorNo  Name          Status\r\n"
                          "1       A door with…  locked\r\n"
                          "2       Lobby         unlocked\r\n"));
    for (const std::vector<std::string> &words :
         {std::vector<std::string>{"doors", "list", "--limit", "2", "--wide"},
          {"doors", "list", "--limit", "2", "-o", "csv"}})
        EXPECT_THAT(OutputAtWidth(30, words), HasSubstr("A door with a long name"));
    EXPECT_THAT(RunCtl({"doors", "list", "--limit", "2"}).Output,
                HasSubstr("A door with a long name  locked\n"));
}

std::string FirstLine(const std::string &text)
{
    return text.substr(0, text.find("\r\n"));
}

TEST_F(NimbractlTerminal, NarrowTableKeepsTimesAndLeavesOutNumbers)
{
    const std::vector<std::string> list = {"events", "list", "--limit", "1", "--code", "10001"};
    const auto wholeTime = ContainsRegex("\n[0-9]+ +2026-01-01 [0-9:]{8}  ");
    for (const int columns : {70, 80, 100, 120}) {
        const std::string output = OutputAtWidth(columns, list);
        EXPECT_THAT(FirstLine(output),
                    MatchesRegex("EventNo  EventTime .*DeviceName .*EventDesc .*UserName.*  …"));
        EXPECT_THAT(output, wholeTime);
        EXPECT_THAT(output, HasSubstr(columns < 120 ? "Access gr" : "Access granted"));
    }
    EXPECT_THAT(OutputAtWidth(60, list), wholeTime);
    EXPECT_THAT(FirstLine(OutputAtWidth(200, list)), HasSubstr("DeviceType"));
    EXPECT_THAT(OutputAtWidth(200, list), Not(HasSubstr("…")));
}

TEST_F(NimbractlTerminal, ChosenFieldsAreCutAndNotLeftOut)
{
    std::vector<std::string> list = {"events", "list",     "--limit",
                                     "1",      "--fields", "EventTime,DeviceType,DeviceName"};
    EXPECT_THAT(FirstLine(OutputAtWidth(40, list)), MatchesRegex("EventTime +Dev.*…  Device.*…"));
    list.emplace_back("--wide");
    EXPECT_THAT(FirstLine(OutputAtWidth(40, list)), Not(HasSubstr("…")));
}

TEST_F(NimbractlTerminal, ErrorsAfterRowsOfJsonBeginALine)
{
    std::filesystem::create_directories("/tmp/.config/nimbractl");
    WriteFile("/tmp/.config/nimbractl/config",
              "[front]\nhost=127.0.0.1\n[gone]\nhost=127.0.0.1\nport=9099\n");
    Terminal terminal(CtlCommand({"--all-panels", "doors", "show", "2", "-o", "json"}));
    EXPECT_EQ(terminal.WaitForExit(), 3);
    EXPECT_EQ(
        terminal.Output(),
        "[\r\n"
        "nimbractl: Panel gone: Cannot connect to 127.0.0.1 port 9099: Connection refused.\r\n"
        "  {\"Panel\":\"front\",\"DoorNo\":2,\"Name\":\"Lobby\",\"Status\":1}\r\n"
        "]\r\n");
}

TEST_F(NimbractlTerminal, WideCharactersKeepColumnsAligned)
{
    panel_.Run("UPDATE Door SET Name='東口東口東口' WHERE No=1");
    panel_.Run("UPDATE Door SET Name='Küche 🚪' WHERE No=2");
    EXPECT_THAT(OutputAtWidth(80, {"doors", "list", "--limit", "2"}),
                HasSubstr("DoorNo  Name          Status\r\n"
                          "1       東口東口東口  locked\r\n"
                          "2       Küche 🚪      unlocked\r\n"));
    EXPECT_THAT(OutputAtWidth(27, {"doors", "list", "--limit", "2"}),
                HasSubstr("DoorNo  Name       Status\r\n"
                          "1       東口東口…  locked\r\n"
                          "2       Küche 🚪   unlocked\r\n"));
}

TEST_F(NimbractlTerminal, HelpFitsTheTerminal)
{
    for (const char *option : {"--help", "--help-all"})
        for (const int columns : {50, 80}) {
            std::istringstream help(OutputAtWidth(columns, {option}));
            std::size_t longest = 0;
            for (std::string line; std::getline(help, line);)
                longest = std::max(longest, line.size() - 1); // without the carriage return
            EXPECT_LE(longest, static_cast<std::size_t>(columns)) << option;
            EXPECT_GT(longest, static_cast<std::size_t>(columns - 10)) << option;
        }
    EXPECT_THAT(RunCtl({"users", "add", "--help"}).Output,
                HasSubstr("--last-name TEXT (required)"));
    EXPECT_THAT(RunCtl({"--help"}).Output, HasSubstr("--port PORT [9000] (Env:NIMBRA_PORT)"));
}

TEST_F(NimbractlTerminal, ColoursAreLeftOutForNoColorDumbTerminalAndPipe)
{
    constexpr char kBold[] = "\033[1m";
    const auto shown = [](const std::vector<std::string> &extra) {
        std::vector<std::string> environment = WithPassword();
        environment.insert(environment.end(), extra.begin(), extra.end());
        Terminal terminal(CtlCommand({"formats"}, environment));
        EXPECT_EQ(terminal.WaitForExit(), 0);
        EXPECT_THAT(terminal.Output(), HasSubstr("26-bit Wiegand"));
        return terminal.Output();
    };
    EXPECT_THAT(shown({}), HasSubstr(kBold));
    EXPECT_THAT(shown({"NO_COLOR=1"}), Not(HasSubstr(kBold)));
    EXPECT_THAT(shown({"TERM=dumb"}), Not(HasSubstr("\033")));
    EXPECT_THAT(RunCtl({"formats"}).Output, Not(HasSubstr("\033")));
}

TEST_F(NimbractlTerminal, ControlCEndsFollowAndLeavesTheTerminalAsItWas)
{
    Terminal terminal(CtlCommand({"events", "follow", "--last", "1"}, WithPassword()));
    ASSERT_TRUE(terminal.WaitFor("Remote login")) << terminal.Output();
    terminal.Type(kControlC);
    EXPECT_EQ(terminal.WaitForExit(), -SIGINT);
    EXPECT_TRUE(terminal.IsAsBefore());
}

TEST_F(NimbractlShell, RunsCommandsWithCompletionAndHistory)
{
    Do("doors show 2", "Lobby");
    // "th" and "g" are completed to "threat get".
    Do("th\tg\t", "ThreatLevel");
    Do(kArrowUp, "ThreatLevel");
    terminal_.Type("cards \t\t");
    EXPECT_TRUE(terminal_.WaitFor("delete")) << terminal_.Output();
    EXPECT_TRUE(terminal_.WaitFor("levels"));
    terminal_.Type(std::string("add --card-n\t"));
    EXPECT_TRUE(terminal_.WaitFor("umber ")) << terminal_.Output();
    terminal_.Type(kControlC);
    EXPECT_TRUE(terminal_.WaitFor(kPrompt));
    WriteFile("/tmp/portrait.jpg", "12345");
    Do("users photo put 7 /tmp/portr\t", "user0007.jpg of 5 bytes");
    Do("outputs on 1 -o json", "\"Status\": 1");
    Do("help users set", "read first");
    Do("nonsense", "no command \"nonsense\"");
    terminal_.Type(kControlD);
    EXPECT_EQ(terminal_.WaitForExit(), 2); // of the command that failed
    EXPECT_TRUE(terminal_.IsAsBefore());
    EXPECT_EQ(Logins(), 1U);
    EXPECT_EQ(
        ReadFile("/tmp/.local/state/nimbractl/history"),
        "doors show 2\nthreat get\nusers photo put 7 /tmp/portrait.jpg\noutputs on 1 -o json\n"
        "help users set\nnonsense\n");
}

TEST_F(NimbractlShell, KeepsPasswordsOutOfTheHistory)
{
    Do("raw 'Login?Username=admin&Password=admin1234'", "LoginResponse?Result=0");
    Do("raw 'login?username=admin&PASSWORD=admin1234'", "LoginResponse?Result=0");
    Do("threat get", "ThreatLevel");
    terminal_.Type("exit\n");
    EXPECT_EQ(terminal_.WaitForExit(), 0);
    EXPECT_EQ(ReadFile("/tmp/.local/state/nimbractl/history"), "threat get\nexit\n");
}

TEST_F(NimbractlShell, StaysOpenWhenControlCCancelsLineOrCommand)
{
    terminal_.Type(std::string("doors lock 2") + kControlC);
    EXPECT_TRUE(terminal_.WaitFor(kPrompt));
    Do("doors show 2", "unlocked");
    terminal_.Type("events follow --last 1\n");
    EXPECT_TRUE(terminal_.WaitFor("Remote login")) << terminal_.Output();
    terminal_.Type(kControlC);
    EXPECT_TRUE(terminal_.WaitFor("Interrupted.")) << terminal_.Output();
    EXPECT_TRUE(terminal_.WaitFor(kPrompt));
    Do("threat get", "ThreatLevel");
    terminal_.Type(kControlD);
    EXPECT_EQ(terminal_.WaitForExit(), 0);
    EXPECT_TRUE(terminal_.IsAsBefore());
}

TEST_F(NimbractlShell, ShowsPromptOnNewLineAfterControlC)
{
    terminal_.Type("users li");
    EXPECT_TRUE(terminal_.WaitFor("users li"));
    terminal_.Type(kControlC);
    EXPECT_TRUE(terminal_.WaitFor("^C\r\n")) << terminal_.Output();
    EXPECT_TRUE(terminal_.WaitFor(kPrompt)) << terminal_.Output();
    // The line that was given up does not return, and the next one is read from its beginning.
    Do("threat get", "ThreatLevel");
    for (int i = 0; i < 3; ++i) {
        terminal_.Type(kControlC);
        EXPECT_TRUE(terminal_.WaitFor("^C\r\n"));
        EXPECT_TRUE(terminal_.WaitFor(kPrompt));
    }
    terminal_.Type(kControlD);
    EXPECT_EQ(terminal_.WaitForExit(), 0);
}

TEST_F(NimbractlShell, CompletesValuesAndQuotedFileNames)
{
    Do("levels --kind gr\t", "groups");
    std::filesystem::create_directory("/tmp/two words");
    WriteFile("/tmp/two words/it's.jpg", "12345");
    Do("users photo put 7 /tmp/two\tit\t", "user0007.jpg of 5 bytes");
    Do("users photo put 7 '/tmp/two wo\tit", "closing '");
    Do("help doors un\t", "Unlock a door");
    terminal_.Type(kControlD);
    EXPECT_EQ(terminal_.WaitForExit(), 2);
}

TEST_F(NimbractlShell, KeepsTheLineWhenAStopSignalArrives)
{
    terminal_.Type("threat ge");
    EXPECT_TRUE(terminal_.WaitFor("threat ge"));
    // The system does not stop a program without a shell above it; the signal is still handled.
    terminal_.Signal(SIGTSTP);
    Do("t", "ThreatLevel");
    terminal_.Type(kControlD);
    EXPECT_EQ(terminal_.WaitForExit(), 0);
}

TEST_F(NimbractlShell, LeavesTheTerminalAsItWasWhenItIsEnded)
{
    EXPECT_FALSE(terminal_.IsAsBefore());
    terminal_.Signal(SIGTERM);
    EXPECT_EQ(terminal_.WaitForExit(), -SIGTERM);
    EXPECT_TRUE(terminal_.IsAsBefore());
}

TEST_F(NimbractlShell, KeepsItsSessionAliveWithHeartbeats)
{
    // Longer than the agent's patience with a silent session, which is 15 seconds at most.
    std::this_thread::sleep_for(std::chrono::seconds(17));
    Do("threat get", "ThreatLevel");
    EXPECT_EQ(Logins(), 1U);
    terminal_.Type(kControlD);
    EXPECT_EQ(terminal_.WaitForExit(), 0);
}

} // namespace

} // namespace nimbra::test
