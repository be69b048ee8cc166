#pragma once

#include "fuzz/DirectoryWatch.h"
#include "fuzz/MemoryDatabase.h"
#include "fuzz/PanelTables.h"
#include "simulator/panel/PanelPaths.h"
#include "simulator/panel/SampleData.h"

#include <cstddef>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace nimbra::fuzz {

/// A call of the panel's command tool: its arguments.
using ToolCall = std::vector<std::string>;

/// Additional accounts, with every right that a role can give, whose names a shell would split or
/// interpret. As clients send them, with doubled quotes.
inline constexpr panel::SampleLogin kQuotedNames[] = {{"Anna Berg", "berg 1"},
                                                      {"it''s $(id) & `id`", "x"}};

/// A small sample panel on the real paths, whose command tool only records its calls. Its databases
/// are in memory. It checks its own state after a session and can be reset.
class FuzzPanel
{
public:
    /// Creates the panel. Only in a sandbox.
    FuzzPanel();

    /// Runs a command line in place of system(3): a model of the shell parses the tool's
    /// arguments. Some lines are also run by a shell, and the tool must receive the same.
    void RunTool(const char *line);
    /// The calls since the last call of this method.
    [[nodiscard]] std::vector<ToolCall> NewCalls();

    /// Begins a session. A thorough one has new connections to the databases, and each of their
    /// tables is read after it; otherwise connections are used again and only tables are read for
    /// which a statement that changes them has been prepared.
    void Begin(bool isThorough);
    /// Ends a session. Reports a finding unless the databases are intact and closed, only what
    /// clients may change has changed, the journal has each change, and no unexpected file exists.
    /// `threatLevel` is the last one set, if any.
    void Check(std::optional<int> threatLevel);
    /// Restores everything that a client has changed, after a check.
    void Reset();

    [[nodiscard]] const panel::PanelPaths &Paths() const { return paths_; }

private:
    using Files = std::map<std::filesystem::path, std::string>;
    using Names = std::set<std::filesystem::path>;

    /// The names in a directory.
    [[nodiscard]] static Names Entries(const std::filesystem::path &directory);
    /// The directories in which no client may create a file.
    [[nodiscard]] std::vector<std::filesystem::path> Watched() const
    {
        return {"/tmp", paths_.Databases, paths_.Images.parent_path(),
                paths_.CommandTool.parent_path()};
    }

    [[nodiscard]] Files ReadImages() const;
    /// Takes the one call that the tool has recorded.
    [[nodiscard]] static ToolCall TakeRecord();
    void CheckTables(std::optional<int> threatLevel, unsigned changed);
    void CheckThreat(std::optional<int> level);
    void CheckAllTables();
    void ReplayJournal();
    void CheckReplayed(const std::string &table);
    void CheckPlaces() const;
    void ResetImages();

    panel::PanelPaths paths_{"/"};
    std::optional<MemoryDatabase> main_;
    std::optional<MemoryDatabase> log_;
    std::optional<MemoryDatabase> network_;
    std::optional<MemoryDatabase> copy_;  ///< with the first content of the main database
    std::optional<PanelTables> now_;      ///< of the main database
    std::optional<PanelTables> replayed_; ///< of the copy
    /// The tables of the main database at the start.
    std::map<std::string, std::string> texts_;
    Connections connections_;
    Changes replayChanges_; ///< of the copy
    bool isThorough_ = false;
    std::optional<DirectoryWatch> watch_; ///< of the directories with their files
    bool haveFilesChanged_ = false;       ///< as the last check has found
    Files images_;
    std::map<std::filesystem::path, Names> entries_;
    std::vector<ToolCall> calls_;
};

/// A file's content.
[[nodiscard]] std::string ReadWhole(const std::filesystem::path &file);

} // namespace nimbra::fuzz
