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

/// The database that the journal is applied to.
constexpr char kCopy[] = "/replayed.db";

/// The tables that requests change. The changes of the first ones are journalled.
constexpr std::array<std::string_view, 5> kChanged{"User", "Card", "CardAccessLevel", "Threat",
                                                   "DBQueryInfo"};
constexpr std::size_t kJournalled = 3;
constexpr unsigned kThreat = 1U << 3U;

bool MayChange(std::string_view table)
{
    return std::find(kChanged.begin(), kChanged.end(), table) != kChanged.end();
}

void WriteWhole(const fs::path &file, const std::string &bytes)
{
    std::ofstream stream(file, std::ios::binary | std::ios::trunc);
    stream << bytes << std::flush;
    Require(stream.good(), file.string() + ": cannot be written");
}

/// Moves a database file into memory; returns its content.
std::string MoveToMemory(const fs::path &file, std::optional<MemoryDatabase> *database)
{
    std::string content = ReadWhole(file);
    fs::remove(file);
    database->emplace(file, content);
    return content;
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

FuzzPanel::FuzzPanel() : connections_(paths_.MainDatabase, kChanged), replayChanges_{kChanged}
{
    Require(std::getenv("NIMBRA_SANDBOX") != nullptr, "runs in nimbra-sandbox only");
    ConfigureSqlite();
    panel::PanelOptions options;
    options.Size = {.Events = 12, .Users = 6, .Cards = 6, .Doors = 4};
    options.CommandTool = NIMBRA_CALL_RECORDER_PATH;
    panel::CreatePanel("/", options);
    for (const panel::SampleLogin &account : kQuotedNames)
        panel::SqliteFile(paths_.MainDatabase)
            .Run(std::string("INSERT INTO WebUser (ID, Password, UserRole) VALUES ('") +
                 account.Id + "', '" + panel::PasswordDigest(account.Password) + "', " +
                 std::to_string(static_cast<int>(panel::Role::Operator)) + ")");
    copy_.emplace(kCopy, MoveToMemory(paths_.MainDatabase, &main_));
    MoveToMemory(paths_.LogDatabase, &log_);
    MoveToMemory(paths_.NetworkDatabase, &network_);
    now_.emplace(paths_.MainDatabase);
    replayed_.emplace(kCopy);
    texts_ = now_->Texts();
    Watch(replayed_->Connection(), &replayChanges_);
    images_ = ReadImages();
    std::vector<fs::path> directories = Watched();
    for (const fs::path &directory : directories)
        entries_[directory] = Entries(directory);
    directories.push_back(paths_.Images);
    watch_.emplace(directories);
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
    // A real shell takes longer than a whole session.
    constexpr std::size_t kOneIn = 256;
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

void FuzzPanel::Begin(bool isThorough)
{
    isThorough_ = isThorough;
    connections_.Begin(!isThorough);
}

void FuzzPanel::Check(std::optional<int> threatLevel)
{
    connections_.End();
    Require(!log_->HasChanged(), "the event log has changed");
    Require(!network_->HasChanged(), "the network database has changed");
    const unsigned changed = connections_.TakeChanges();
    Require(changed != 0 || !main_->HasChanged(), "a change without a statement that makes it");
    if (main_->HasChanged() || isThorough_ || threatLevel)
        CheckTables(threatLevel, changed);
    haveFilesChanged_ = watch_->HasChanged();
    if (haveFilesChanged_)
        CheckPlaces();
}

void FuzzPanel::CheckTables(std::optional<int> threatLevel, unsigned changed)
{
    // One transaction each, so that SQLite looks for changes once and undoes the replay.
    now_->Run("BEGIN");
    replayed_->Run("BEGIN");
    if (isThorough_)
        CheckAllTables();
    ReplayJournal();
    for (std::size_t i = 0; i < kJournalled; ++i)
        if (isThorough_ || ((changed | replayChanges_.Made) >> i & 1U) != 0)
            CheckReplayed(std::string(kChanged.at(i)));
    if ((changed & kThreat) != 0 || threatLevel)
        CheckThreat(threatLevel);
    replayed_->Run("ROLLBACK");
    now_->Run("COMMIT");
}

void FuzzPanel::CheckThreat(std::optional<int> level)
{
    Require(level.has_value(), "a threat level that nobody has set");
    int rows = 0;
    now_->ForEach("SELECT ThreatStatus FROM Threat", [level, &rows](sqlite3_stmt *row) {
        RequireEqual("threat level", *level, sqlite3_column_int64(row, 0));
        ++rows;
    });
    Require(rows == 1, "another number of threat levels in force");
}

void FuzzPanel::CheckAllTables()
{
    now_->ForEach("PRAGMA integrity_check",
                  [](sqlite3_stmt *row) { RequireEqual("integrity", "ok", ColumnText(row, 0)); });
    const std::map<std::string, std::string> texts = now_->Texts();
    Require(texts.size() == texts_.size(), "another number of tables");
    for (const auto &[table, text] : texts)
        if (!MayChange(table))
            RequireEqual("rows that no client may change, " + table, texts_[table], text);
}

void FuzzPanel::ReplayJournal()
{
    replayChanges_.Made = 0;
    int number = 0;
    now_->ForEach("SELECT Idseq, DbKind, QueryData FROM DBQueryInfo ORDER BY rowid",
                  [&](sqlite3_stmt *row) {
                      RequireEqual("number in the journal", ++number, sqlite3_column_int64(row, 0));
                      RequireEqual("kind in the journal", 1, sqlite3_column_int64(row, 1));
                      replayed_->Run(ColumnText(row, 2).c_str());
                  });
}

void FuzzPanel::CheckReplayed(const std::string &table)
{
    if (PanelTables::HaveSameRows(&*now_, &*replayed_, table))
        return;
    // To read all tables also changes SQLite's own one of virtual tables.
    Unwatch(replayed_->Connection());
    Report("rows after a replay of the journal, " + table, now_->Texts()[table],
           replayed_->Texts()[table]);
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
    if (main_->HasChanged())
        main_->Reset();
    if (haveFilesChanged_)
        ResetImages();
    calls_.clear();
}

void FuzzPanel::ResetImages()
{
    const Files now = ReadImages();
    for (const auto &[path, bytes] : now)
        if (images_.count(path) == 0)
            fs::remove(path);
    for (const auto &[path, bytes] : images_)
        if (now.count(path) == 0 || now.at(path) != bytes)
            WriteWhole(path, bytes);
    // These changes are not the client's.
    static_cast<void>(watch_->HasChanged());
}

} // namespace nimbra::fuzz
