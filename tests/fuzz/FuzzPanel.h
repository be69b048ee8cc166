#pragma once

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

/// A small sample panel on the real paths, whose command tool only records its calls. It checks its
/// own state after a session and can be reset.
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

    /// Reports a finding unless the databases are intact, only what clients may change has
    /// changed, the journal has each change, and no unexpected file exists. `threatLevel` is the
    /// last one set, if any.
    void Check(std::optional<int> threatLevel);
    /// Restores everything that a client may have changed.
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
    void CheckTables(std::optional<int> threatLevel) const;
    void CheckPlaces() const;

    panel::PanelPaths paths_{"/"};
    std::string mainBytes_;
    std::map<std::string, std::string> rowQueries_; ///< by table of the main database
    std::map<std::string, std::string> rows_;       ///< their results at the start
    std::string logBytes_;
    std::string networkBytes_;
    Files images_;
    std::map<std::filesystem::path, Names> entries_;
    std::vector<ToolCall> calls_;
};

/// A file's content.
[[nodiscard]] std::string ReadWhole(const std::filesystem::path &file);

} // namespace nimbra::fuzz
