// nimbra-panel-check on the sample panel.

#include "panel-check/Schema.h"
#include "simulator/panel/Sqlite.h"
#include "support/Agent.h"
#include "support/Files.h"
#include "support/Program.h"
#include "support/TestPanel.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace nimbra::test {

namespace {

namespace fs = std::filesystem;

using check::Column;
using check::Need;
using check::RequiredTables;
using check::Table;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

constexpr char kMain[] = "/tmp/NimbraDB/Nimbra.db";
constexpr char kEvents[] = "/tmp/NimbraDB/NimbraLog.db";
constexpr char kNetwork[] = "/tmp/NimbraDB/Network.db";
constexpr char kIfconfig[] = "/nimbra/bin/ifconfig";
constexpr char kTool[] = "/nimbra/sbin/nimbra-cgi";
constexpr char kImages[] = "/nimbra/web/webroot/user_img";

/// What the check says of each subject, as "<status> <finding>".
struct Checked
{
    int Status = 0;
    std::map<std::string, std::string> Findings;

    [[nodiscard]] std::string Of(const std::string &subject) const
    {
        const auto found = Findings.find(subject);
        return found == Findings.end() ? "(no finding)" : found->second;
    }
    /// The subjects with this status.
    [[nodiscard]] std::vector<std::string> With(const std::string &status) const
    {
        std::vector<std::string> subjects;
        for (const auto &[subject, finding] : Findings)
            if (finding.starts_with(status + " "))
                subjects.push_back(subject);
        return subjects;
    }
};

/// The name of a database, as subjects begin with it.
std::string NameOf(const Table &table)
{
    return fs::path(table.Database).filename();
}

class PanelCheck : public ::testing::Test
{
protected:
    /// Runs the program with these arguments, and with `wrapper` before it.
    [[nodiscard]] static ProgramResult Run(const std::vector<std::string> &arguments,
                                           const std::vector<std::string> &wrapper = {})
    {
        std::vector<std::string> command = {"env", "TZ=UTC0"};
        command.insert(command.end(), wrapper.begin(), wrapper.end());
        command.emplace_back(NIMBRA_PANEL_CHECK_PATH);
        command.insert(command.end(), arguments.begin(), arguments.end());
        return RunProgram(command);
    }

    [[nodiscard]] static Checked Check(const std::vector<std::string> &wrapper = {})
    {
        const ProgramResult result = Run({"--json"}, wrapper);
        Checked checked{result.Status, {}};
        const nlohmann::json findings = nlohmann::json::parse(result.Output, nullptr, false);
        EXPECT_TRUE(findings.is_array()) << result.Output;
        for (const nlohmann::json &finding : findings) {
            const auto text = [&finding](const char *member) {
                return finding.at(member).get<std::string>();
            };
            EXPECT_EQ(text("status") == "ok", text("action").empty()) << finding;
            EXPECT_TRUE(
                checked.Findings.emplace(text("subject"), text("status") + " " + text("finding"))
                    .second)
                << "twice: " << finding;
        }
        return checked;
    }

    /// Every file that the panel has, with what a change of it would change.
    [[nodiscard]] static std::vector<std::string> State()
    {
        std::vector<std::string> state;
        for (const char *root : {"/tmp/NimbraDB", "/nimbra"})
            for (const auto &entry : fs::recursive_directory_iterator(root)) {
                struct stat status = {};
                EXPECT_EQ(lstat(entry.path().c_str(), &status), 0);
                std::ostringstream line;
                line << entry.path() << ' ' << status.st_mode << ' ' << status.st_ino << ' '
                     << status.st_mtim.tv_sec << '.' << status.st_mtim.tv_nsec << ' '
                     << (entry.is_regular_file() ? ReadFile(entry.path()) : "");
                state.push_back(line.str());
            }
        std::sort(state.begin(), state.end());
        return state;
    }

    TestPanel panel_;
};

TEST_F(PanelCheck, AcceptsSamplePanel)
{
    const Checked checked = Check();
    EXPECT_EQ(checked.Status, 0);
    EXPECT_THAT(checked.With("fail"), IsEmpty());
    // The sample panel has what tests of these limits need.
    EXPECT_THAT(checked.With("warning"), UnorderedElementsAre("Nimbra.db: rights of the accounts",
                                                              "Nimbra.db: formats of the cards"));
    EXPECT_EQ(checked.Of(kIfconfig), "ok prints 00:1A:2B:3C:4D:5E for eth0");
    EXPECT_EQ(checked.Of("TCP port 9000"), "ok is free");
    EXPECT_EQ(checked.Of("UDP port 9701"), "ok is free");
    EXPECT_EQ(checked.Of("UDP broadcast to port 9702"), "ok has a route");
    EXPECT_THAT(checked.Of("time zone"), StartsWith("ok local time is "));
}

TEST_F(PanelCheck, PrintsSameFindingsAsTextAndJson)
{
    fs::remove(kTool);
    const ProgramResult text = Run({});
    const ProgramResult json = Run({"--json"});
    EXPECT_EQ(text.Status, 1);
    EXPECT_EQ(json.Status, 1);
    std::istringstream lines(text.Output);
    std::string line;
    for (const nlohmann::json &finding : nlohmann::json::parse(json.Output)) {
        const auto member = [&finding](const char *name) {
            return finding.at(name).get<std::string>();
        };
        ASSERT_TRUE(std::getline(lines, line));
        // The clock goes on between the two runs.
        if (member("subject") == "clock" || member("subject") == "time zone")
            continue;
        const std::string action = member("action");
        EXPECT_EQ(line, (member("status") + std::string(9, ' ')).substr(0, 9) + member("subject") +
                            ": " + member("finding") + (action.empty() ? "" : ". " + action));
    }
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_THAT(line, HasSubstr(" checks: 1 failure, 2 warnings"));
    EXPECT_FALSE(std::getline(lines, line));
}

TEST_F(PanelCheck, FailsWithoutEachColumn)
{
    for (const Table &table : RequiredTables()) {
        const std::string subject = NameOf(table) + ": table " + table.Name;
        for (const Column &column : table.Columns) {
            const bool isOptional = column.Use == Need::Optional;
            const std::string change = std::string("ALTER TABLE ") + table.Name + " RENAME COLUMN ";
            if (!isOptional)
                TestPanel::Run(table.Database, change + column.Name + " TO Renamed");
            const Checked checked = Check();
            EXPECT_EQ(checked.Status, isOptional ? 0 : 1) << table.Name << '.' << column.Name;
            EXPECT_EQ(checked.Of(subject), isOptional
                                               ? std::string("ok has every column; without ") +
                                                     column.Name + ", so its filter is refused"
                                               : std::string("fail lacks ") + column.Name);
            if (!isOptional)
                TestPanel::Run(table.Database, change + "Renamed TO " + column.Name);
        }
    }
    EXPECT_EQ(Check().Status, 0);
}

TEST_F(PanelCheck, FailsWithoutEachTable)
{
    for (const Table &table : RequiredTables()) {
        const std::string name = table.Name;
        TestPanel::Run(table.Database, "ALTER TABLE " + name + " RENAME TO Renamed");
        const Checked checked = Check();
        EXPECT_EQ(checked.Status, 1) << name;
        EXPECT_THAT(checked.With("fail"), ElementsAre(NameOf(table) + ": table " + name));
        EXPECT_EQ(checked.Of(NameOf(table) + ": table " + name), "fail is missing");
        TestPanel::Run(table.Database, "ALTER TABLE Renamed RENAME TO " + name);
    }
    EXPECT_EQ(Check().Status, 0);
}

TEST_F(PanelCheck, WarnsWithoutEachIndex)
{
    for (const Table &table : RequiredTables()) {
        const std::string name = table.Name;
        TestPanel::Run(table.Database, "CREATE TABLE Copy AS SELECT * FROM " + name +
                                           "; DROP TABLE " + name +
                                           "; ALTER TABLE Copy RENAME TO " + name);
        for (const Column &column : table.Columns) {
            if (column.Use != Need::Indexed)
                continue;
            const std::string subject =
                NameOf(table) + ": index on " + name + " (" + column.Name + ")";
            const Checked without = Check();
            EXPECT_EQ(without.Of(subject), "warning is missing");
            EXPECT_EQ(without.Status, 0);
            // One that serves only some rows, or only with another column, is none.
            const std::string create = " INDEX Added" + name + column.Name + " ON " + name + " (";
            TestPanel::Run(table.Database, "CREATE" + create + column.Name + ") WHERE 0=1");
            EXPECT_EQ(Check().Of(subject), "warning is missing");
            TestPanel::Run(table.Database, "DROP INDEX Added" + name + column.Name);
            TestPanel::Run(table.Database, "CREATE" + create + column.Name + ")");
            EXPECT_EQ(Check().Of(subject), "ok exists");
        }
    }
}

TEST_F(PanelCheck, ChangesNothing)
{
    const std::vector<std::string> before = State();
    static_cast<void>(Check());
    EXPECT_EQ(State(), before);
}

TEST_F(PanelCheck, ChangesNoDatabaseWithWriteAheadLog)
{
    for (const char *file : {kMain, kEvents, kNetwork})
        TestPanel::Run(file, "PRAGMA journal_mode=WAL");
    const std::vector<std::string> before = State();
    EXPECT_EQ(Check().Status, 0);
    EXPECT_EQ(State(), before);
}

TEST_F(PanelCheck, CreatesNoMissingDatabase)
{
    for (const char *file : {kMain, kEvents, kNetwork}) {
        fs::remove(file);
        const Checked checked = Check();
        EXPECT_EQ(checked.Status, 1);
        EXPECT_EQ(checked.Of(file), "fail is missing");
        EXPECT_FALSE(fs::exists(file));
    }
    fs::remove_all("/tmp/NimbraDB");
    EXPECT_EQ(Check().Of("/tmp/NimbraDB"), "fail is missing");
    EXPECT_FALSE(fs::exists("/tmp/NimbraDB"));
}

TEST_F(PanelCheck, FailsWithEmptyOrForeignDatabase)
{
    WriteFile(kMain, "");
    WriteFile(kEvents, std::string(8192, 'x'));
    fs::remove(kNetwork);
    fs::create_directory(kNetwork);
    const Checked checked = Check();
    EXPECT_EQ(checked.Status, 1);
    EXPECT_EQ(checked.Of(kMain), "fail is empty");
    EXPECT_EQ(checked.Of(kEvents), "fail is not an SQLite database");
    EXPECT_EQ(checked.Of(kNetwork), "fail is not a file");
}

TEST_F(PanelCheck, FailsWithLockedDatabase)
{
    panel::SqliteFile other(kMain);
    other.Run("BEGIN EXCLUSIVE");
    const Checked checked = Check();
    EXPECT_EQ(checked.Status, 1);
    EXPECT_THAT(checked.With("fail"), ElementsAre(kMain));
    EXPECT_EQ(checked.Of(kMain), "fail is locked by another program for more than 3 seconds");
}

TEST_F(PanelCheck, FailsWithoutRights)
{
    // Even root may then only do what the modes of the files say.
    const std::vector<std::string> withoutRights = {
        "setpriv", "--bounding-set", "-dac_override,-dac_read_search", "--inh-caps", "-all"};
    EXPECT_EQ(Check(withoutRights).Status, 0);
    fs::permissions(kMain, fs::perms(0400));
    fs::permissions(kEvents, fs::perms(0200));
    fs::permissions(kNetwork, fs::perms(0400));
    fs::permissions(kImages, fs::perms(0500));
    fs::permissions("/tmp/NimbraDB", fs::perms(0500));
    const Checked checked = Check(withoutRights);
    EXPECT_EQ(checked.Status, 1);
    EXPECT_EQ(checked.Of(kMain), "fail may not be read and written");
    EXPECT_EQ(checked.Of(kEvents), "fail may not be read");
    EXPECT_EQ(checked.Of(kNetwork), "ok can be read");
    EXPECT_EQ(checked.Of(kImages), "fail may not be read and written");
    EXPECT_EQ(checked.Of("/tmp/NimbraDB"), "fail may not be written");
}

TEST_F(PanelCheck, FailsWithoutRowsReadAtStart)
{
    panel_.Run("DELETE FROM Cloud");
    TestPanel::Run(kNetwork, "DELETE FROM Network");
    const Checked checked = Check();
    EXPECT_EQ(checked.Status, 1);
    EXPECT_EQ(checked.Of("Nimbra.db: row of Cloud"), "fail is missing");
    EXPECT_EQ(checked.Of("Network.db: row of Network"), "fail is missing");
}

TEST_F(PanelCheck, WarnsOfSecondRowReadAtStart)
{
    panel_.Run("INSERT INTO Cloud (No) VALUES (7)");
    const Checked checked = Check();
    EXPECT_EQ(checked.Status, 0);
    EXPECT_EQ(checked.Of("Nimbra.db: row of Cloud"), "warning is not the only one: 2 rows");
}

TEST_F(PanelCheck, WarnsOfUnknownModelOnlyWithCloudLink)
{
    constexpr char kSubject[] = "Network.db: model of the panel";
    EXPECT_EQ(Check().Of(kSubject), "ok 11 is known");
    TestPanel::Run(kNetwork, "UPDATE Network SET Model=5");
    EXPECT_EQ(Check().Of(kSubject), "ok 5 is not known; the cloud link is not enabled");
    panel_.Run("UPDATE Cloud SET Enabled=1");
    EXPECT_EQ(Check().Of(kSubject), "warning 5 is not known, so the cloud link stays off");
}

TEST_F(PanelCheck, FailsWhenNobodyCanLogIn)
{
    panel_.Run("DELETE FROM WebUser");
    EXPECT_EQ(Check().Of("Nimbra.db: accounts"), "ok with a password: 1");
    EXPECT_EQ(Check().Of("Nimbra.db: rights of the accounts"),
              "ok every role has rows in UserRoleTable");
    panel_.Run("UPDATE Controller SET Password='admin1234'");
    const Checked checked = Check();
    EXPECT_EQ(checked.Status, 1);
    EXPECT_EQ(checked.Of("Nimbra.db: accounts"), "fail nobody can log in");
}

TEST_F(PanelCheck, WarnsOfRowsThatCommandsDoNotFind)
{
    panel_.Run("UPDATE Card SET CardFormatNo=99 WHERE No IN (1, 2)");
    TestPanel::Run(kEvents, "UPDATE Log SET EventCode=77 WHERE No IN (1, 2)");
    const Checked checked = Check();
    EXPECT_EQ(checked.Of("Nimbra.db: formats of the cards"),
              "warning cards without one in CardFormat: 3");
    EXPECT_EQ(checked.Of("NimbraLog.db: codes of the events"), "warning not in EventCode: 77");
    EXPECT_EQ(checked.Status, 0);
}

TEST_F(PanelCheck, FailsWithoutUsableIfconfig)
{
    ReplaceProgram(kIfconfig, "echo 'eth0: flags=4163<UP> mtu 1500'; echo ' ether 00:1a:2b'");
    EXPECT_EQ(Check().Of(kIfconfig), "fail prints no line with 'HWaddr' and an address for eth0");
    ReplaceProgram(kIfconfig, "exit 1");
    EXPECT_EQ(Check().Of(kIfconfig), "fail prints no line with 'HWaddr' and an address for eth0");
    ReplaceProgram(kIfconfig, "printf 'HWaddr a\\033\"b'");
    EXPECT_EQ(Check().Of(kIfconfig), "ok prints A?\"B for eth0");
    fs::permissions(kIfconfig, fs::perms(0600));
    EXPECT_EQ(Check().Of(kIfconfig), "fail may not be executed");
    fs::remove(kIfconfig);
    EXPECT_EQ(Check().Of(kIfconfig), "fail is missing");
    fs::create_directory(kIfconfig);
    const Checked checked = Check();
    EXPECT_EQ(checked.Of(kIfconfig), "fail is not a program");
    EXPECT_EQ(checked.Status, 1);
    fs::remove(kIfconfig);
}

TEST_F(PanelCheck, EndsIfconfigThatHangs)
{
    ReplaceProgram(kIfconfig, "echo $$ >/nimbra/bin/number; sleep 100");
    EXPECT_EQ(Check().Of(kIfconfig), "fail does not end within 5 seconds");
    const std::string process =
        "/proc/" + std::to_string(std::stoi(ReadFile("/nimbra/bin/number")));
    EXPECT_TRUE(WaitUntil([&process] {
        // An ended process may wait for its parent to notice.
        const std::string state = ReadFile(process + "/stat");
        return state.empty() || state.find(") Z ") != std::string::npos;
    }));
}

TEST_F(PanelCheck, FailsWithoutGrep)
{
    const std::vector<std::string> onlyShell = {"PATH=/nimbra/bin"};
    EXPECT_EQ(Check(onlyShell).Of("grep"), "fail is not in the PATH");
    EXPECT_EQ(Check().Of("grep"), "ok is in the PATH");
}

TEST_F(PanelCheck, FailsWithoutCommandToolAndNeverRunsIt)
{
    EXPECT_EQ(Check().Of(kTool), "ok can be executed");
    fs::permissions(kTool, fs::perms(0600));
    EXPECT_EQ(Check().Of(kTool), "fail may not be executed");
    ReplaceProgram(kTool, "touch /nimbra/sbin/has-run");
    EXPECT_EQ(Check().Of(kTool), "ok can be executed");
    fs::remove(kTool);
    const Checked checked = Check();
    EXPECT_EQ(checked.Of(kTool), "fail is missing");
    EXPECT_EQ(checked.Status, 1);
    EXPECT_THAT(panel_.Calls(), IsEmpty());
    EXPECT_FALSE(fs::exists("/nimbra/sbin/has-run"));
}

TEST_F(PanelCheck, FailsWithoutImageDirectory)
{
    fs::remove_all(kImages);
    EXPECT_EQ(Check().Of(kImages), "fail is missing");
    WriteFile(kImages, "");
    EXPECT_EQ(Check().Of(kImages), "fail is not a directory");
    EXPECT_EQ(Check().Status, 1);
}

TEST_F(PanelCheck, FailsWithPortsInUse)
{
    Agent agent;
    ASSERT_TRUE(WaitUntil([&agent] { return agent.Descriptors() == Agent::kDescriptorsAtRest; }));
    const Checked checked = Check();
    EXPECT_EQ(checked.Status, 1);
    EXPECT_THAT(checked.With("fail"), ElementsAre("TCP port 9000", "UDP port 9701"));
    EXPECT_EQ(checked.Of("TCP port 9000"), "fail is in use");
    EXPECT_EQ(checked.Of("UDP port 9701"), "fail is in use");
}

TEST_F(PanelCheck, WarnsWithoutRouteForBroadcasts)
{
    ASSERT_EQ(RunProgram({"ip", "route", "flush", "table", "main"}).Status, 0);
    const Checked checked = Check();
    EXPECT_EQ(checked.Of("UDP broadcast to port 9702"), "warning has no route");
    EXPECT_EQ(checked.Status, 0);
}

TEST_F(PanelCheck, JudgesLimitOfDescriptors)
{
    const auto withLimit = [](const std::string &limit) {
        return Check({"prlimit", "--nofile=" + limit, "--"}).Of("descriptors");
    };
    EXPECT_EQ(withLimit("64"), "ok 64 can be open");
    EXPECT_EQ(withLimit("63"), "warning 63 can be open");
    EXPECT_EQ(withLimit("16"), "warning 16 can be open");
    EXPECT_EQ(withLimit("15"), "fail 15 can be open");
}

TEST_F(PanelCheck, WarnsOfUnknownTimeZone)
{
    EXPECT_THAT(Check({"TZ=No/Where"}).Of("time zone"),
                StartsWith("warning TZ=No/Where is not known; local time is "));
}

TEST_F(PanelCheck, ExplainsItselfAndRefusesOtherArguments)
{
    const ProgramResult help = Run({"--help"});
    EXPECT_EQ(help.Status, 0);
    EXPECT_THAT(help.Output, StartsWith("Usage: nimbra-panel-check [--json]\n"));
    EXPECT_EQ(Run({"-h"}).Output, help.Output);
    const ProgramResult version = Run({"--version"});
    EXPECT_EQ(version.Status, 0);
    EXPECT_EQ(version.Output, "nimbra-panel-check 5.00-05h\n");
    for (const char *wrong : {"--no-such", "-x", "--json=yes", "word"}) {
        const ProgramResult result = Run({wrong});
        EXPECT_EQ(result.Status, 2) << wrong;
        EXPECT_THAT(result.Output, HasSubstr(wrong == std::string("-x") ? "'x'" : "nimbra"));
        EXPECT_THAT(result.Output, HasSubstr(help.Output)) << wrong;
    }
}

TEST_F(PanelCheck, FailsWhenOutputCannotBeWritten)
{
    const ProgramResult result =
        RunProgram({"sh", "-c", NIMBRA_PANEL_CHECK_PATH " --json >/dev/full"});
    EXPECT_EQ(result.Status, 1);
    EXPECT_EQ(result.Output, "nimbra-panel-check: No space left on device\n");
}

} // namespace

} // namespace nimbra::test
