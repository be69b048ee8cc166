#include "fuzz/FuzzPanel.h"

#include "fuzz/Finding.h"
#include "fuzz/MessageModel.h"
#include "fuzz/ShellModel.h"
#include "simulator/panel/SamplePanel.h"
#include "simulator/panel/Sqlite.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string_view>
#include <utility>

// The linker prescribes the name of the wrapped function itself.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" int __real_system(const char *line);

namespace nimbra::fuzz {

namespace {

namespace fs = std::filesystem;

/// The tables whose changes are journalled.
constexpr std::array<std::string_view, 3> kJournalled{"User", "Card", "CardAccessLevel"};
/// Other tables that requests change.
constexpr std::array<std::string_view, 2> kOthers{"DBQueryInfo", "Threat"};

template <class List>
bool IsIn(std::string_view name, const List &list)
{
    return std::find(list.begin(), list.end(), name) != list.end();
}

void WriteWhole(const fs::path &file, const std::string &bytes)
{
    std::ofstream stream(file, std::ios::binary | std::ios::trunc);
    stream << bytes << std::flush;
    Require(stream.good(), file.string() + ": cannot be written");
}

std::vector<std::string> Column(panel::SqliteFile &database, const std::string &sql)
{
    std::vector<std::string> values;
    panel::SqliteStatement statement(database, sql);
    while (statement.Step())
        values.push_back(statement.Row().at(0));
    return values;
}

/// The query of each table for its rows as texts that show each value and its type.
std::map<std::string, std::string> RowQueries(const fs::path &file)
{
    panel::SqliteFile database(file);
    std::map<std::string, std::string> queries;
    for (const std::string &name :
         Column(database, "SELECT name FROM sqlite_master WHERE type='table'")) {
        std::string row;
        for (const std::string &column :
             Column(database, "SELECT name FROM pragma_table_info('" + name + "')"))
            row += (row.empty() ? "quote(" : "||','||quote(") + column + ")";
        queries[name] = "SELECT " + row + " FROM " + name;
    }
    queries["schema"] = "SELECT name||sql FROM sqlite_master ORDER BY name";
    return queries;
}

std::string Rows(panel::SqliteFile &database, const std::string &query)
{
    std::string rows;
    for (const std::string &row : Column(database, query))
        rows += row + "\n";
    return rows;
}

/// Applies the journal of one database to another. Runs only the first statement of an entry; it
/// must not have a second one.
void Replay(const fs::path &journal, const fs::path &onto)
{
    panel::SqliteFile from(journal);
    panel::SqliteFile to(onto);
    for (const std::string &statement :
         Column(from, "SELECT QueryData FROM DBQueryInfo WHERE DbKind=1 ORDER BY Idseq"))
        panel::SqliteStatement(to, statement).Execute();
}

} // namespace

FuzzPanel::Names FuzzPanel::Entries(const fs::path &directory)
{
    Names names;
    for (const fs::directory_entry &entry : fs::directory_iterator(directory))
        names.insert(entry.path().filename());
    return names;
}

std::string ReadWhole(const fs::path &file)
{
    std::ifstream stream(file, std::ios::binary);
    std::string bytes(fs::exists(file) ? fs::file_size(file) : 0, '\0');
    stream.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

FuzzPanel::FuzzPanel()
{
    Require(std::getenv("NIMBRA_SANDBOX") != nullptr, "runs in nimbra-sandbox only");
    panel::PanelOptions options;
    options.Size = {.Events = 12, .Users = 6, .Cards = 6, .Doors = 4};
    options.CommandTool = NIMBRA_CALL_RECORDER_PATH;
    panel::CreatePanel("/", options);
    for (const panel::SampleLogin &account : kQuotedNames)
        panel::SqliteFile(paths_.MainDatabase)
            .Run(std::string("INSERT INTO WebUser (ID, Password, UserRole) VALUES ('") +
                 account.Id + "', '" + panel::PasswordDigest(account.Password) + "', " +
                 std::to_string(static_cast<int>(panel::Role::Operator)) + ")");
    mainBytes_ = ReadWhole(paths_.MainDatabase);
    rowQueries_ = RowQueries(paths_.MainDatabase);
    panel::SqliteFile database(paths_.MainDatabase);
    for (const auto &[name, query] : rowQueries_)
        rows_[name] = Rows(database, query);
    logBytes_ = ReadWhole(paths_.LogDatabase);
    networkBytes_ = ReadWhole(paths_.NetworkDatabase);
    images_ = ReadImages();
    for (const fs::path &directory : Watched())
        entries_[directory] = Entries(directory);
}

FuzzPanel::Files FuzzPanel::ReadImages() const
{
    Files images;
    for (const fs::directory_entry &entry : fs::directory_iterator(paths_.Images)) {
        Require(entry.is_regular_file(), "an image that is not a regular file");
        images[entry.path()] = ReadWhole(entry.path());
    }
    return images;
}

void FuzzPanel::RunTool(const char *line)
{
    ToolCall call = ShellWords(line);
    Require(!call.empty() && call[0] == paths_.CommandTool, "a program other than the tool");
    call.erase(call.begin());
    // A real shell takes longer than the rest of the request.
    constexpr std::size_t kOneIn = 16;
    if (std::hash<std::string_view>()(line) % kOneIn == 0) {
        Require(__real_system(line) == 0, "the tool fails");
        Require(TakeRecord() == call, "the shell's arguments differ from the model's");
    }
    calls_.push_back(call);
}

ToolCall FuzzPanel::TakeRecord()
{
    std::ifstream file(NIMBRA_CALLS_PATH, std::ios::binary);
    std::string text;
    std::getline(file, text, '\0');
    ToolCall call(std::stoul(text));
    for (std::string &argument : call)
        std::getline(file, argument, '\0');
    Require(!std::getline(file, text, '\0'), "a line calls the tool more than once");
    fs::remove(NIMBRA_CALLS_PATH);
    return call;
}

std::vector<ToolCall> FuzzPanel::NewCalls()
{
    return std::exchange(calls_, {});
}

void FuzzPanel::Check(std::optional<int> threatLevel)
{
    Require(ReadWhole(paths_.LogDatabase) == logBytes_, "the event log has changed");
    Require(ReadWhole(paths_.NetworkDatabase) == networkBytes_, "the network database has changed");
    if (ReadWhole(paths_.MainDatabase) != mainBytes_)
        CheckTables(threatLevel);
    CheckPlaces();
}

void FuzzPanel::CheckTables(std::optional<int> threatLevel) const
{
    {
        panel::SqliteFile database(paths_.MainDatabase);
        RequireEqual("integrity", "ok", Column(database, "PRAGMA integrity_check").at(0));
        const std::vector<std::string> numbers =
            Column(database, "SELECT Idseq FROM DBQueryInfo ORDER BY rowid");
        for (std::size_t i = 0; i < numbers.size(); ++i)
            RequireEqual("number in the journal", std::to_string(i + 1), numbers[i]);
        if (threatLevel)
            for (const std::string &level : Column(database, "SELECT ThreatStatus FROM Threat"))
                RequireEqual("threat level", std::to_string(*threatLevel), level);
    }
    const fs::path copy = paths_.CallLog.parent_path() / "replayed.db";
    WriteWhole(copy, mainBytes_);
    Replay(paths_.MainDatabase, copy);
    panel::SqliteFile now(paths_.MainDatabase);
    panel::SqliteFile replayed(copy);
    for (const auto &[name, query] : rowQueries_) {
        if (IsIn(name, kJournalled))
            RequireEqual("rows after a replay of the journal, " + name, Rows(now, query),
                         Rows(replayed, query));
        else if (!IsIn(name, kOthers))
            RequireEqual("rows that no client may change, " + name, rows_.at(name),
                         Rows(now, query));
    }
}

void FuzzPanel::CheckPlaces() const
{
    for (const auto &[directory, names] : entries_)
        Require(Entries(directory) == names, "unexpected files in " + directory.string());
    // No client can choose such a name.
    for (const fs::path &name : Entries(paths_.Images))
        Require(!IsUploadName(name.string()), "a temporary file of an upload remains");
}

void FuzzPanel::Reset()
{
    if (ReadWhole(paths_.MainDatabase) != mainBytes_)
        WriteWhole(paths_.MainDatabase, mainBytes_);
    const Files now = ReadImages();
    for (const auto &[path, bytes] : now)
        if (images_.count(path) == 0)
            fs::remove(path);
    for (const auto &[path, bytes] : images_)
        if (now.count(path) == 0 || now.at(path) != bytes)
            WriteWhole(path, bytes);
    calls_.clear();
}

} // namespace nimbra::fuzz
