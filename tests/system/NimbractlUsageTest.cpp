// How nimbractl ends, where it takes the password from, and what it makes of panels that fail it.

#include "simulator/cloud/CloudServer.h"
#include "support/Agent.h"
#include "support/FakePanel.h"
#include "support/Files.h"
#include "support/NimbractlTest.h"
#include "support/TestPanel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace nimbra::test {

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

using NimbractlUsage = NimbractlTest;

/// Runs nimbractl with an environment, and standard input from a file.
ProgramResult RunWith(const std::vector<std::string> &environment,
                      const std::vector<std::string> &arguments,
                      const std::string &input = "/dev/null")
{
    // In a session of its own, so that there is no terminal to ask on.
    std::vector<std::string> command = {"setsid", "--wait", "sh", "-c", "exec \"$@\" < " + input,
                                        "sh"};
    const std::vector<std::string> ctl = CtlCommand(arguments, environment);
    command.insert(command.end(), ctl.begin(), ctl.end());
    return RunProgram(command);
}

TEST(NimbractlHelp, ShowsUsageOfEveryCommand)
{
    const std::vector<std::string> commands = {"discover",
                                               "doors list",
                                               "doors show",
                                               "doors lock",
                                               "doors unlock",
                                               "doors hold",
                                               "doors watch",
                                               "outputs get",
                                               "outputs on",
                                               "outputs off",
                                               "events list",
                                               "events show",
                                               "events follow",
                                               "event-codes",
                                               "users list",
                                               "users show",
                                               "users add",
                                               "users set",
                                               "users delete",
                                               "users import",
                                               "users photo get",
                                               "users photo put",
                                               "cards list",
                                               "cards show",
                                               "cards add",
                                               "cards set",
                                               "cards delete",
                                               "cards import",
                                               "cards levels get",
                                               "cards levels set",
                                               "formats",
                                               "levels",
                                               "threat list",
                                               "threat get",
                                               "threat set",
                                               "video live",
                                               "video play",
                                               "raw",
                                               "shell"};
    const std::string all = RunCtl({"--help-all"}).Output;
    for (const std::string &command : commands) {
        const ProgramResult help =
            RunProgram({"sh", "-c", "exec " + CtlCommand({}).back() + " " + command + " --help"});
        EXPECT_EQ(help.Status, 0) << command;
        EXPECT_THAT(help.Output, HasSubstr("Usage: nimbractl " + command));
        EXPECT_THAT(all, HasSubstr("\n" + command + "\n"));
    }
    for (const char *command : {"users", "cards"})
        EXPECT_THAT(RunCtl({command, "set", "--help"}).Output, HasSubstr("read first"));
    EXPECT_THAT(RunCtl({"--help"}).Output, HasSubstr("Exit status:"));
    EXPECT_THAT(RunCtl({"--help"}).Output, HasSubstr("\n  130 interrupted"));
    EXPECT_EQ(RunCtl({"--version"}).Output, "nimbractl 5.00-05h\n");
}

TEST(NimbractlHelp, WrongUsageIsStatus2AndSaysWhatIsWrong)
{
    ExpectCtlFails({}, 2, "nimbractl: A subcommand is required. --help shows more.\n");
    ExpectCtlFails({"doors"}, 2, "subcommand is required");
    ExpectCtlFails({"windows"}, 2, "no command \"windows\"");
    ExpectCtlFails({"windows"}, 2, "; the nearest is \"");
    ExpectCtlFails({"doors", "unlok"}, 2,
                   "nimbractl: There is no command \"unlok\" in \"doors\"; the nearest is "
                   "\"unlock\". --help lists all.\n");
    ExpectCtlFails({"doors", "--limt", "5"}, 2,
                   "nimbractl: There is no option \"--limt\" in \"doors\". --help lists all.\n");
    ExpectCtlFails({"--limt"}, 2, "nimbractl: There is no option \"--limt\". --help lists all.\n");
    ExpectCtlFails({"users", "photo", "gte"}, 2,
                   R"(no command "gte" in "users photo"; the nearest is "get")");
    ExpectCtlFails({"cards", "add", "one"}, 2, "--user-no is required. --help shows more.");
    ExpectCtlFails({"doors", "list", "one", "two", "three"}, 2,
                   "nimbractl: Unexpected words: one two three. ");
    ExpectCtlFails({"doors", "list", "--colour"}, 2, "--colour");
    ExpectCtlFails({"doors", "show"}, 2, "number is required");
    ExpectCtlFails({"doors", "show", "one"}, 2, "\"one\" is no whole number");
    ExpectCtlFails({"doors", "show", "99999999999"}, 2, "is no whole number of 32 bits");
    ExpectCtlFails({"doors", "list", "--limit", "0"}, 2, "--limit");
    ExpectCtlFails({"doors", "list", "-o", "xml"}, 2, "\"xml\" is none of csv, json, jsonl, table");
    ExpectCtlFails({"events", "list", "--from", "2026-02-30"}, 2, "is no time");
    ExpectCtlFails({"cards", "add", "--user-no", "1"}, 2, "required");
    ExpectCtlFails({"cards", "set", "1", "--expires", "tomorrow"}, 2, "is no date");
    ExpectCtlFails({"--port", "0", "formats"}, 2, "--port");
    ExpectCtlFails({"--clock-offset", "noon", "formats"}, 2, "is no offset");
    EXPECT_EQ(RunWith({}, {"formats"}).Output,
              "nimbractl: Name the panel with --host, with --panel, or in the environment variable "
              "NIMBRA_HOST.\n");
    EXPECT_EQ(
        RunWith({"NIMBRA_HOST=127.0.0.1"}, {"formats"}).Output,
        "nimbractl: Name the user with --user, or in the environment variable NIMBRA_USER.\n");
}

TEST_F(NimbractlUsage, PasswordIsReadFromFileOrEnvironment)
{
    const std::vector<std::string> right = {"NIMBRA_HOST=127.0.0.1", "NIMBRA_USER=operator",
                                            "NIMBRA_PASSWORD=operate!1"};
    const std::vector<std::string> wrong = {"NIMBRA_HOST=127.0.0.1", "NIMBRA_USER=operator",
                                            "NIMBRA_PASSWORD=wrong"};
    WriteFile("/tmp/password", "operate!1\r\nsecond line\n");
    EXPECT_EQ(RunWith(right, {"threat", "get"}).Status, 0);
    EXPECT_EQ(RunWith(wrong, {"threat", "get", "--password-file", "/tmp/password"}).Status, 0);
    EXPECT_EQ(RunWith(wrong, {"threat", "get", "--password-file", "-"}, "/tmp/password").Status, 0);
    const ProgramResult refused = RunWith(wrong, {"threat", "get"});
    EXPECT_EQ(refused.Status, 1);
    EXPECT_EQ(refused.Output, "nimbractl: The user name or the password is wrong, or the panel "
                              "cannot read its database. (Login as \"operator\": Result=1)\n");
}

TEST_F(NimbractlUsage, MissingPasswordWithoutTerminalIsStatus2)
{
    const std::vector<std::string> none = {"NIMBRA_HOST=127.0.0.1", "NIMBRA_USER=operator"};
    const ProgramResult result = RunWith(none, {"threat", "get"});
    EXPECT_EQ(result.Status, 2);
    EXPECT_THAT(result.Output, HasSubstr("no terminal to ask for the password"));
    for (const std::string file : {"/tmp/none", "/dev/null"}) {
        const ProgramResult unread = RunWith(none, {"threat", "get", "--password-file", file});
        EXPECT_EQ(unread.Status, 2);
        EXPECT_EQ(unread.Output, "nimbractl: Cannot read a password from " + file + ".\n");
    }
}

TEST_F(NimbractlUsage, OptionsOnTheCommandLineOverruleTheEnvironment)
{
    const std::vector<std::string> environment = {"NIMBRA_HOST=192.0.2.1", "NIMBRA_PORT=9",
                                                  "NIMBRA_USER=x", "NIMBRA_PASSWORD=view4321"};
    EXPECT_EQ(RunWith(environment, {"--host", "127.0.0.1", "formats", "2", "--port", "9000",
                                    "--user", "viewer", "-o", "csv"})
                  .Output,
              "FormatNo,Name,Default\n2,34-bit Wiegand,0\n");
}

TEST_F(NimbractlUsage, MissingRightIsStatus1)
{
    const std::vector<std::string> guard = {"NIMBRA_HOST=127.0.0.1", "NIMBRA_USER=guard",
                                            "NIMBRA_PASSWORD=guard2468"};
    const ProgramResult result = RunWith(guard, {"users", "list", "-o", "json"});
    EXPECT_EQ(result.Status, 1);
    EXPECT_EQ(result.Output, "nimbractl: This login does not have the right to do that. "
                             "(GetUserInfoEx: Result=9)\n");
    WriteFile("/tmp/some.png", std::string(200000, 'x'));
    EXPECT_EQ(RunWith(guard, {"users", "photo", "put", "7", "/tmp/some.png"}).Output,
              "nimbractl: This login does not have the right to do that. "
              "(SetUserImage: Result=9)\n");
}

TEST_F(NimbractlUsage, PanelThatCannotReadItsTablesIsStatus1)
{
    panel_.Run("DROP TABLE ThreatLevel");
    const ProgramResult result = RunCtl({"threat", "list"});
    EXPECT_EQ(result.Status, 1);
    EXPECT_EQ(result.Output, "nimbractl: The panel has no threat levels, or cannot read its "
                             "database. (GetThreatInfoEx: Result=1)\n");
}

TEST_F(NimbractlUsage, PanelThatStopsAnsweringIsStatus3)
{
    ASSERT_TRUE(agent_.Suspend());
    const Stopwatch watch;
    const ProgramResult result = RunCtl({"--timeout", "2", "formats"});
    EXPECT_EQ(result.Status, 3);
    EXPECT_EQ(result.Output,
              "nimbractl: The panel stopped responding: it sent nothing for 2 seconds.\n");
    EXPECT_GE(watch.Seconds(), 2.0);
    agent_.Signal(SIGCONT);
}

TEST(NimbractlFailures, UnreachablePanelIsStatus3)
{
    ExpectCtlFails({"formats"}, 3, "Cannot connect to 127.0.0.1 port 9000: Connection refused");
    ExpectCtlFails({"--host", "no-such-host.invalid", "formats"}, 3, "Cannot find the address");
    const Stopwatch watch;
    ExpectCtlFails({"discover", "--wait", "0.5"}, 3, "No panel responded");
    EXPECT_GE(watch.Seconds(), 0.5);
}

/// Runs nimbractl on a panel that answers one command in a bad way.
void ExpectFailsOn(const std::string &word, const std::optional<std::string> &answer,
                   const std::vector<std::string> &command, const std::string &complaint)
{
    FakePanel panel([&word, &answer](const std::string &line) {
        return line.compare(0, word.size(), word) == 0 ? answer : std::optional<std::string>("");
    });
    std::vector<std::string> words = {"--port", std::to_string(panel.Port()), "--timeout", "1"};
    words.insert(words.end(), command.begin(), command.end());
    ExpectCtlFails(words, 3, complaint);
}

TEST(NimbractlFailures, InvalidResponseIsStatus3)
{
    const std::string strange = "does not speak the panel's protocol";
    ExpectFailsOn("Hello?", "SSH-2.0-OpenSSH_9.2\r\n", {"formats"}, strange);
    ExpectFailsOn("Hello?", std::string(100000, 'x'), {"formats"}, strange);
    ExpectFailsOn("GetThreatLevel?", "GetDoorLockResponse?Result=0&Status=1\n", {"threat", "get"},
                  strange);
    ExpectFailsOn("GetCardFormatEx?",
                  "GetCardFormatExResponse?Result=0&Total=9&Offset=0&Count=9\n"
                  "FormatNo=1&Name=x&Default=1\n",
                  {"formats"}, "stopped in the middle of its response");
    ExpectFailsOn("GetUserImage?", "GetUserImageResponse?Result=0&FileName=a.png&Size=1000\nabc",
                  {"users", "photo", "get", "1", "/tmp/x"}, "Only 3 of 1000 bytes arrived");
    ExpectFailsOn("GetThreatLevel?", std::nullopt, {"threat", "get"}, "closed the connection");
}

TEST(NimbractlFailures, ResponseWithoutValidNumberIsStatus3)
{
    const std::string strange = "does not speak the panel's protocol";
    for (const char *result : {"", "abc", "-1", "0x", "99999999999"})
        ExpectFailsOn("GetThreatLevel?",
                      "GetThreatLevelResponse?Result=" + std::string(result) + "&ThreatLevel=1\n",
                      {"threat", "get"}, strange);
    for (const char *count : {"", "&Count=", "&Count=abc", "&Count=-1", "&Count=1x"})
        ExpectFailsOn("GetCardFormatEx?",
                      "GetCardFormatExResponse?Result=0&Total=1&Offset=0" + std::string(count) +
                          "\nFormatNo=1&Name=x&Default=1\n",
                      {"formats"}, strange);
    for (const char *size : {"", "&Size=", "&Size=-5"})
        ExpectFailsOn("GetUserImage?",
                      "GetUserImageResponse?Result=0&FileName=a.png" + std::string(size) + "\n",
                      {"users", "photo", "get", "1", "/tmp/x"}, strange);
    EXPECT_FALSE(std::filesystem::exists("/tmp/x"));
}

TEST(NimbractlFailures, ControlCharactersOfPanelArePrintedAsQuestionMarks)
{
    FakePanel panel([](const std::string &line) {
        return line.compare(0, 12, "GetDoorInfo?") == 0
                   ? "GetDoorInfoResponse?Result=0&DoorNo=1&Name=a\033[2Jb\302\2332Jc\303\233&"
                     "Status=0\n"
                   : "";
    });
    EXPECT_THAT(RunCtl({"--port", std::to_string(panel.Port()), "doors", "show", "1"}).Output,
                HasSubstr("a?[2Jb\302?2Jc\303\233\n"));
}

TEST(NimbractlFailures, PhotoIsStoredInHiddenFileOnlyWhenFileIsNamed)
{
    FakePanel panel([](const std::string &line) {
        return line.compare(0, 13, "GetUserImage?") == 0
                   ? "GetUserImageResponse?Result=0&FileName=.profile&Size=3\nabc"
                   : "";
    });
    ExpectCtlFails({"--port", std::to_string(panel.Port()), "users", "photo", "get", "1"}, 2,
                   "\".profile\", is no name for a file: give one.");
    EXPECT_EQ(RunCtl({"--port", std::to_string(panel.Port()), "users", "photo", "get", "1",
                      "/tmp/.profile"})
                  .Status,
              0);
    EXPECT_EQ(ReadFile("/tmp/.profile"), "abc");
}

TEST(NimbractlFailures, ExistingFileIsRefusedBeforeDownload)
{
    FakePanel panel([](const std::string &) { return ""; });
    WriteFile("/tmp/here.png", "old");
    ExpectCtlFails(
        {"--port", std::to_string(panel.Port()), "users", "photo", "get", "1", "/tmp/here.png"}, 2,
        "There is a file /tmp/here.png already; --force replaces it.");
    EXPECT_EQ(panel.Lines(), std::vector<std::string>{});
    EXPECT_EQ(ReadFile("/tmp/here.png"), "old");
}

TEST(NimbractlFailures, PhotoWithPathInNameIsStoredInCurrentDirectory)
{
    FakePanel panel([](const std::string &line) {
        return line.compare(0, 13, "GetUserImage?") == 0
                   ? "GetUserImageResponse?Result=0&FileName=../../tmp/escaped.png&Size=3\nabc"
                   : "";
    });
    std::vector<std::string> command = {"sh", "-c", "mkdir /tmp/here; cd /tmp/here; exec \"$@\"",
                                        "sh"};
    for (const std::string &word :
         CtlCommand({"--port", std::to_string(panel.Port()), "users", "photo", "get", "1"}))
        command.push_back(word);
    const ProgramResult result = RunProgram(command);
    EXPECT_EQ(result.Status, 0) << result.Output;
    EXPECT_EQ(ReadFile("/tmp/here/escaped.png"), "abc");
    EXPECT_EQ(ReadFile("/tmp/escaped.png"), "");
}

/// Runs a command on a panel that makes the change, and responds to each request after it with
/// `after`; without a value, it closes the connection instead.
void ExpectChangeSucceeds(const std::vector<std::string> &command,
                          const std::optional<std::string> &after, const std::string &output)
{
    FakePanel panel(
        [&after, isChanged = false](const std::string &line) mutable -> std::optional<std::string> {
            const std::string word = line.substr(0, line.find('?'));
            if (word == "Hello" || word == "Login")
                return "";
            if (isChanged)
                return after ? std::optional(word + "Response?" + *after) : std::nullopt;
            isChanged = word.starts_with("Add") || word.starts_with("Set");
            return word + "Response?Result=0\n";
        });
    std::vector<std::string> words = {"--port", std::to_string(panel.Port()), "--clock-offset",
                                      "Z"};
    words.insert(words.end(), command.begin(), command.end());
    const ProgramResult result = RunCtl(words);
    EXPECT_EQ(result.Status, 0);
    EXPECT_EQ(result.Output, output);
}

TEST(NimbractlFailures, ChangeThatThePanelDoesNotShowIsStatus0)
{
    const std::string unseen = "; the panel does not show it.\n";
    for (const std::optional<std::string> &after : {std::optional<std::string>("Result=1\n"), {}}) {
        const auto expect = [&](const std::vector<std::string> &command, const char *done) {
            ExpectChangeSucceeds(command, after, "nimbractl: " + std::string(done) + unseen);
        };
        expect({"users", "add", "--last-name", "Fox"}, "The user is added");
        expect({"users", "set", "3", "--ada", "1"}, "The user is changed");
        expect({"cards", "add", "--user-no", "3", "--format", "1", "--card-number", "4711",
                "--never-expire", "1"},
               "The card is added");
        expect({"cards", "set", "3", "--status", "1"}, "The card is changed");
        expect({"cards", "levels", "set", "3", "--none"}, "The card is changed");
        expect({"doors", "unlock", "1"}, "The lock is switched");
        expect({"outputs", "on", "1"}, "The output is switched");
    }
    ExpectChangeSucceeds({"threat", "set", "4"}, "Result=1\n", "ThreatLevel  4\n");
    ExpectChangeSucceeds({"threat", "set", "4"}, {}, "nimbractl: The threat level is set" + unseen);
}

TEST(NimbractlFailures, AccessLevelsThatThePanelDoesNotListAreNotSet)
{
    FakePanel panel([](const std::string &line) {
        if (line.starts_with("GetAccessLevelEx?"))
            return "GetAccessLevelExResponse?Result=1\n";
        return line.starts_with("GetCardAccessLevel?")
                   ? "GetCardAccessLevelResponse?Result=0&SelectType=1&AccessLevelNo=\n"
                   : "";
    });
    ExpectCtlFails({"--port", std::to_string(panel.Port()), "cards", "levels", "set", "3", "5"}, 1,
                   "There is no access level 5, or the panel cannot read its database; nothing is "
                   "sent. (GetAccessLevelEx: Result=1)");
    EXPECT_EQ(panel.Count("SetCardAccessLevel?"), 0U);
}

TEST_F(NimbractlUsage, ShellReadsCommandsFromStandardInputInOneSession)
{
    WriteFile("/tmp/script", "doors show 2\n"
                             "\n"
                             "# a comment\n"
                             "users list --last-name \"o'neill\" -o csv\n"
                             "bad\n"
                             "threat get --output json\n"
                             "help doors show\n"
                             "users list --last-name 'open\n"
                             "exit\n"
                             "threat set 5\n");
    panel_.Run("UPDATE User SET LastName='O''Neill', MiddleName=NULL WHERE No=2");
    const std::vector<std::string> admin = {"NIMBRA_HOST=127.0.0.1", "NIMBRA_USER=admin",
                                            "NIMBRA_PASSWORD=admin1234"};
    const ProgramResult result = RunWith(admin, {"shell"}, "/tmp/script");
    EXPECT_EQ(result.Status, 2);
    for (const char *text :
         {"Name    Lobby\n", ",O'Neill,", "Line 5: There is no command \"bad\"",
          "{\n  \"ThreatLevel\": 1\n}\n", "Show a door.", "Line 8: The line lacks the closing '"})
        EXPECT_THAT(result.Output, HasSubstr(text));
    EXPECT_EQ(panel_.Value("SELECT ThreatStatus FROM Threat"), "1");
    EXPECT_EQ(panel_.Calls().size(), 1U); // one login
}

TEST_F(NimbractlUsage, ShellReadsLinesThatEndWithCarriageReturn)
{
    WriteFile("/tmp/script", "doors show 2 -o csv\r\n\r\nexit\r\nthreat set 5\r\n");
    const ProgramResult result =
        RunWith({"NIMBRA_HOST=127.0.0.1", "NIMBRA_USER=admin", "NIMBRA_PASSWORD=admin1234"},
                {"shell"}, "/tmp/script");
    EXPECT_EQ(result.Status, 0);
    EXPECT_EQ(result.Output, "DoorNo,Name,Status\n2,Lobby,1\n");
}

TEST(NimbractlRemoteAccess, PrintsSameOutputThroughCloudServer)
{
    const CloudPanel panel;
    const simulator::CloudServer server;
    Agent agent;
    const std::vector<std::string> local = {"NIMBRA_HOST=127.0.0.1", "NIMBRA_USER=operator",
                                            "NIMBRA_PASSWORD=operate!1"};
    std::vector<std::string> remote = local;
    remote.emplace_back("NIMBRA_PORT=9520");
    for (const std::vector<std::string> &words :
         {std::vector<std::string>{"doors", "list"}, {"users", "show", "3", "-o", "json"}}) {
        const ProgramResult result = RunWith(remote, words);
        EXPECT_EQ(result.Status, 0);
        EXPECT_EQ(result.Output, RunWith(local, words).Output);
    }
    EXPECT_EQ(server.Count("RelayDevice?"), 2U);
}

TEST_F(NimbractlUsage, LibraryExampleListsDoors)
{
    const ProgramResult result =
        RunProgram({"env", "NIMBRA_PASSWORD=admin1234",
                    NIMBRA_BUILD_DIRECTORY "/bin/nimbra-client-example", "127.0.0.1", "admin"});
    EXPECT_EQ(result.Status, 0);
    EXPECT_THAT(result.Output, StartsWith("  1 Front Entrance                   locked\n"
                                          "  2 Lobby                            unlocked\n"));
}

} // namespace

} // namespace nimbra::test
