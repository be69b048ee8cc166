#include "support/TestPanel.h"

#include "simulator/panel/SamplePanel.h"
#include "simulator/panel/Sqlite.h"
#include "support/Files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <utility>

namespace nimbra::test {

namespace {

std::vector<Row> AllRows(panel::SqliteFile &database, const std::string &sql)
{
    panel::SqliteStatement statement(database, sql);
    std::vector<Row> rows;
    while (statement.Step())
        rows.push_back(statement.Row());
    return rows;
}

} // namespace

TestPanel::TestPanel(const panel::PanelSize &size, Cloud cloud)
{
    panel::PanelOptions options;
    options.Size = size;
    options.CloudEnabled = cloud == Cloud::Enabled;
    options.CommandTool = NIMBRA_COMMAND_TOOL_PATH;
    panel::CreatePanel("/", options);
}

CloudPanel::CloudPanel() : TestPanel({}, Cloud::Enabled)
{
    NameHost("127.0.0.1", "cloud.nimbra.example");
}

void TestPanel::Run(const std::string &file, const std::string &sql)
{
    panel::SqliteFile(file).Run(sql);
}

std::vector<Row> TestPanel::Rows(const std::string &file, const std::string &sql)
{
    panel::SqliteFile database(file);
    return AllRows(database, sql);
}

std::string TestPanel::Value(const std::string &sql) const
{
    const std::vector<Row> rows = Rows(sql);
    return rows.empty() ? "(no row)" : rows[0].at(0);
}

void TestPanel::DropKeys(const std::string &table) const
{
    Run("CREATE TABLE Copy AS SELECT * FROM " + table + " WHERE 0; DROP TABLE " + table +
        "; ALTER TABLE Copy RENAME TO " + table);
}

std::vector<std::string> TestPanel::Journal() const
{
    std::vector<std::string> statements;
    for (Row &row : Rows("SELECT QueryData FROM DBQueryInfo ORDER BY Idseq"))
        statements.push_back(std::move(row[0]));
    return statements;
}

std::vector<panel::Call> TestPanel::Calls(std::size_t from) const
{
    std::vector<panel::Call> calls = panel::ReadCalls(paths_.CallLog);
    const auto skipped = static_cast<std::ptrdiff_t>(std::min(from, calls.size()));
    calls.erase(calls.begin(), calls.begin() + skipped);
    return calls;
}

std::vector<std::string> TestPanel::Dump(const std::string &file)
{
    panel::SqliteFile database(file);
    std::vector<std::string> lines;
    for (const Row &table : AllRows(
             database, "SELECT name, sql FROM sqlite_master WHERE type='table' ORDER BY name")) {
        lines.push_back(table[1]);
        std::string columns;
        for (const Row &column :
             AllRows(database, "SELECT name FROM pragma_table_info('" + table[0] + "')"))
            columns += (columns.empty() ? "quote(" : " || ', ' || quote(") + column[0] + ")";
        for (const Row &row : AllRows(database, "SELECT " + columns + " FROM " + table[0]))
            lines.push_back(table[0] + ": " + row[0]);
    }
    return lines;
}

std::map<std::string, std::string> TestPanel::Files() const
{
    std::map<std::string, std::string> files;
    const auto add = [&files](const std::filesystem::directory_entry &entry) {
        files[entry.path()] = entry.is_regular_file() ? ReadFile(entry.path()) : "(special)";
    };
    for (const auto &entry : std::filesystem::recursive_directory_iterator("/nimbra"))
        if (entry.path() != paths_.CallLog && entry.path() != paths_.CommandTool)
            add(entry);
    for (const auto &entry : std::filesystem::directory_iterator("/tmp"))
        if (entry.path().filename().string().rfind("owned", 0) == 0)
            add(entry);
    return files;
}

panel::Call AuditCall(int eventCode, const std::string &userName)
{
    return {"log", "1", "127.0.0.1", "0", std::to_string(eventCode), "0", "0", userName, "0", "0"};
}

ManagementClient LoggedIn(const panel::SampleLogin &login)
{
    ManagementClient client;
    EXPECT_EQ(client.Login(login.Id, login.Password), "LoginResponse?Result=0");
    return client;
}

} // namespace nimbra::test
