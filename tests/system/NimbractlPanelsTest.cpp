// nimbractl and the panels of its configuration file: one by its name, several for commands that
// only read.

#include "support/FakePanel.h"
#include "support/Files.h"
#include "support/NimbractlTest.h"
#include "support/Terminal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace nimbra::test {

namespace {

using nlohmann::json;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr char kConfig[] = "/tmp/.config/nimbractl/config";
constexpr char kSecret[] = "/tmp/.config/nimbractl/secret";

/// A file with two names for the panel of the test, and one panel that does not run. The third name
/// has the password in a private file.
class NimbractlPanels : public NimbractlTest
{
protected:
    NimbractlPanels()
    {
        std::filesystem::create_directories("/tmp/.config/nimbractl");
        WriteFile(kConfig, "host=127.0.0.1\n"
                           "[front]\n"
                           "user=operator\n"
                           "password-file=secret\n"
                           "[gone]\n"
                           "user=operator\n"
                           "port=9099\n"
                           "[back]\n"
                           "user=admin\n");
        WriteFile(kSecret, "operate!1\n");
        MakePrivate(kSecret);
    }

    static void MakePrivate(const std::string &file)
    {
        using std::filesystem::perms;
        std::filesystem::permissions(file, perms::owner_read | perms::owner_write);
    }
};

/// Runs nimbractl with the controller's password in the environment, and no panel.
ProgramResult RunAlone(const std::vector<std::string> &arguments,
                       const std::vector<std::string> &environment = {"NIMBRA_PASSWORD=admin1234"})
{
    return RunProgram(CtlCommand(arguments, environment));
}

/// The same, and only its standard output; errors are in /tmp/errors.
ProgramResult RunForOutput(const std::vector<std::string> &arguments)
{
    std::vector<std::string> command = {"sh", "-c", "exec \"$@\" 2> /tmp/errors", "sh"};
    for (const std::string &word : CtlCommand(arguments, {"NIMBRA_PASSWORD=admin1234"}))
        command.push_back(word);
    return RunProgram(command);
}

TEST_F(NimbractlPanels, PanelIsFoundByItsName)
{
    const std::string door = "DoorNo  2\nName    Lobby\nStatus  unlocked\n";
    EXPECT_EQ(RunAlone({"--panel", "front", "doors", "show", "2"}, {}).Output, door);
    EXPECT_EQ(RunAlone({"doors", "show", "2", "--panel=back"}).Output, door);
    EXPECT_EQ(RunAlone({"--panel", "front", "outputs", "on", "1"}, {}).Status, 0);
    EXPECT_EQ(panel_.Calls().back(), AuditCall(11415, "operator"));
    Terminal terminal(CtlCommand({"--panel", "front", "shell"}, {}));
    EXPECT_TRUE(terminal.WaitFor("front> ")) << terminal.Output();
    terminal.Type("threat get\n");
    EXPECT_TRUE(terminal.WaitFor("front> ")) << terminal.Output();
    EXPECT_THAT(terminal.Output(), HasSubstr("ThreatLevel"));
}

TEST_F(NimbractlPanels, CommandLineOverrulesTheFileAndTheFileTheEnvironment)
{
    const std::vector<std::string> environment = {"NIMBRA_HOST=192.0.2.1", "NIMBRA_PORT=9000",
                                                  "NIMBRA_USER=nobody", "NIMBRA_PASSWORD=wrong"};
    EXPECT_EQ(RunAlone({"--panel", "front", "threat", "get"}, environment).Status, 0);
    EXPECT_EQ(
        RunAlone({"--panel", "gone", "--port", "9000", "--user", "admin", "threat", "get"}).Status,
        0);
    EXPECT_THAT(RunAlone({"--panel", "gone", "threat", "get"}, environment).Output,
                HasSubstr("Cannot connect to 127.0.0.1 port 9099"));
    EXPECT_THAT(RunAlone({"--panel", "back", "threat", "get"}, environment).Output,
                HasSubstr("Login as \"admin\": Result=1"));
    EXPECT_THAT(RunAlone({"--panel", "front", "--host", "127.0.0.1", "threat", "get"}).Output,
                HasSubstr("Name the panel with --host or with --panel, not with both."));
}

TEST_F(NimbractlPanels, SeveralPanelsMakeOneListWithTheirNames)
{
    const std::vector<std::string> list = {"--panel", "front,back", "doors",
                                           "list",    "--limit",    "2"};
    const auto run = [&list](const std::vector<std::string> &more) {
        std::vector<std::string> words = list;
        words.insert(words.end(), more.begin(), more.end());
        const ProgramResult result = RunAlone(words);
        EXPECT_EQ(result.Status, 0);
        return result.Output;
    };
    EXPECT_EQ(run({}), "Panel  DoorNo  Name            Status\n"
                       "front  1       Front Entrance  locked\n"
                       "front  2       Lobby           unlocked\n"
                       "back   1       Front Entrance  locked\n"
                       "back   2       Lobby           unlocked\n");
    EXPECT_EQ(run({"-o", "csv", "--fields", "Name"}), "Panel,Name\n"
                                                      "front,Front Entrance\n"
                                                      "front,Lobby\n"
                                                      "back,Front Entrance\n"
                                                      "back,Lobby\n");
    EXPECT_EQ(run({"-o", "csv", "--fields", "DoorNo,Panel"}),
              "DoorNo,Panel\n1,front\n2,front\n1,back\n2,back\n");
    EXPECT_EQ(json::parse(run({"-o", "json", "--fields", "DoorNo"})),
              json::parse(R"([{"Panel":"front","DoorNo":1},{"Panel":"front","DoorNo":2},
                              {"Panel":"back","DoorNo":1},{"Panel":"back","DoorNo":2}])"));
    EXPECT_THAT(run({"-o", "jsonl"}),
                StartsWith("{\"Panel\":\"front\",\"DoorNo\":1,\"Name\":\"Front Entrance\","
                           "\"Status\":0}\n"));
}

TEST_F(NimbractlPanels, OneRecordOfEachPanelIsARow)
{
    EXPECT_EQ(RunAlone({"--panel", "front,back", "doors", "show", "2"}).Output,
              "Panel  DoorNo  Name   Status\n"
              "front  2       Lobby  unlocked\n"
              "back   2       Lobby  unlocked\n");
    EXPECT_EQ(
        json::parse(RunAlone({"--panel", "back,front", "threat", "get", "-o", "json"}).Output),
        json::parse(R"([{"Panel":"back","ThreatLevel":1},{"Panel":"front","ThreatLevel":1}])"));
}

TEST_F(NimbractlPanels, PanelThatFailsDoesNotHideTheOthers)
{
    const ProgramResult result = RunForOutput({"--all-panels", "doors", "show", "2", "-o", "csv"});
    EXPECT_EQ(result.Status, 3);
    EXPECT_EQ(result.Output, "Panel,DoorNo,Name,Status\nfront,2,Lobby,1\nback,2,Lobby,1\n");
    EXPECT_EQ(
        ReadFile("/tmp/errors"),
        "nimbractl: Panel gone: Cannot connect to 127.0.0.1 port 9099: Connection refused.\n");

    FakePanel full([](const std::string &line) {
        return line.starts_with("GetDoorInfoEx?") ? "GetDoorInfoExResponse?Result=9\n" : "";
    });
    WriteFile(kConfig,
              ReadFile(kConfig) + "[full]\nuser=x\nport=" + std::to_string(full.Port()) + "\n");
    const ProgramResult refused =
        RunForOutput({"--panel", "full,gone,back", "doors", "list", "--limit", "1", "-o", "json"});
    EXPECT_EQ(refused.Status, 1) << "that of the first that failed";
    EXPECT_EQ(json::parse(refused.Output).size(), 1U);
    EXPECT_THAT(ReadFile("/tmp/errors"),
                AllOf(StartsWith("nimbractl: Panel full: This login does not have the right"),
                      HasSubstr("\nnimbractl: Panel gone: Cannot connect")));

    const ProgramResult none = RunForOutput({"--panel", "gone,full", "doors", "list", "-o", "csv"});
    EXPECT_EQ(none.Status, 3);
    EXPECT_EQ(none.Output, "");
}

TEST_F(NimbractlPanels, SeveralPanelsAreForCommandsThatOnlyReadAndEnd)
{
    const std::vector<std::string> before = TestPanel::Dump(panel_.Paths().MainDatabase);
    for (const std::vector<std::string> &command :
         std::vector<std::vector<std::string>>{{"doors", "unlock", "1"},
                                               {"users", "add", "--last-name", "Fox"},
                                               {"users", "import", "/dev/null"},
                                               {"users", "photo", "get", "1", "/tmp/x"},
                                               {"cards", "delete", "1"},
                                               {"threat", "set", "2"},
                                               {"events", "follow"},
                                               {"doors", "watch"},
                                               {"discover"},
                                               {"raw", "GetThreatLevel?"},
                                               {"shell"}}) {
        std::vector<std::string> words = {"--all-panels"};
        words.insert(words.end(), command.begin(), command.end());
        const ProgramResult result = RunAlone(words);
        EXPECT_EQ(result.Status, 2);
        EXPECT_EQ(result.Output, "nimbractl: This command takes one panel at a time: name one with "
                                 "--panel.\n");
    }
    EXPECT_EQ(TestPanel::Dump(panel_.Paths().MainDatabase), before);
    EXPECT_EQ(RunAlone({"--panel", "front,back", "video", "live", "1", "--url"}).Status, 2);
}

TEST_F(NimbractlPanels, PasswordFileThatOthersMayReadIsRefused)
{
    using std::filesystem::perms;
    for (const perms right : {perms::group_read, perms::others_read, perms::others_write}) {
        MakePrivate(kSecret);
        std::filesystem::permissions(kSecret, right, std::filesystem::perm_options::add);
        const ProgramResult result = RunForOutput({"--panel", "front,back", "doors", "show", "2"});
        EXPECT_EQ(result.Status, 2);
        EXPECT_EQ(ReadFile("/tmp/errors"),
                  "nimbractl: Panel front: Others may use the file /tmp/.config/nimbractl/secret, "
                  "which holds a password: chmod 600 makes it private.\n");
        EXPECT_THAT(result.Output, AllOf(HasSubstr("\nback"), Not(HasSubstr("front"))));
    }
    EXPECT_EQ(RunAlone({"--panel", "front", "doors", "show", "2"}).Status, 2);
}

TEST_F(NimbractlPanels, FileAndNamesAreChecked)
{
    EXPECT_EQ(RunAlone({"--panel", "yard", "formats"}).Output,
              "nimbractl: There is no panel \"yard\" in /tmp/.config/nimbractl/config; the panels "
              "are front, gone, back.\n");
    EXPECT_THAT(RunAlone({"--panel", "front", "--all-panels", "formats"}).Output,
                HasSubstr("Give --panel or --all-panels, not both."));
    WriteFile(kConfig, "[front]\nuser=x\n");
    EXPECT_EQ(RunAlone({"--panel", "front", "formats"}).Output,
              "nimbractl: /tmp/.config/nimbractl/config, [front]: the host is missing.\n");
    WriteFile(kConfig, "");
    EXPECT_EQ(RunAlone({"--all-panels", "formats"}).Output,
              "nimbractl: /tmp/.config/nimbractl/config names no panel.\n");
    EXPECT_EQ(RunAlone({"--panel", "front", "formats"}, {"XDG_CONFIG_HOME=/tmp/none"}).Output,
              "nimbractl: Cannot read /tmp/none/nimbractl/config.\n");
    EXPECT_EQ(RunAlone({"--panel", "front", "formats"}, {"XDG_CONFIG_HOME=", "HOME="}).Output,
              "nimbractl: There is no file of panels: neither XDG_CONFIG_HOME nor HOME names a "
              "directory.\n");
}

TEST_F(NimbractlPanels, NamesAreCompleted)
{
    EXPECT_EQ(RunAlone({"complete", "--panel", ""}).Output, "front\ngone\nback\n");
    EXPECT_EQ(RunAlone({"complete", "--panel", "front,b"}).Output, "front,back\n");
    EXPECT_EQ(RunAlone({"complete", "doors", "list", "--panel=g"}).Output, "--panel=gone\n");
    WriteFile(kConfig, "colour=red\n");
    EXPECT_EQ(RunAlone({"complete", "--panel", ""}).Output, "");
}

} // namespace

} // namespace nimbra::test
