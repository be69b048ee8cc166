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

/// Accounts that it has besides those of the sample panel, with every right that a role can give:
/// names that a shell would take apart. As clients send them, quotes doubled.
inline constexpr panel::SampleLogin kOddNames[] = {{"Anna Berg", "berg 1"},
                                                   {"it''s $(id) & `id`", "x"}};

/// A small sample panel on the real paths, whose command tool only records its calls. It can be set
/// back to where it began, and knows whether what a client did to it is sound.
class FuzzPanel
{
public:
    /// Lays the panel out. Only in a sandbox.
    FuzzPanel();

    /// Runs a command line in the place of system(3): a model of the shell says what the tool is
    /// called with. Every so often a shell runs the line too, and the tool must say the same.
    void RunTool(const char *line);
    /// The calls since the last time.
    [[nodiscard]] std::vector<ToolCall> NewCalls();

    /// Reports unless the databases are whole, nothing but what clients may change has changed,
    /// the journal tells of each change, and no file stands where it should not. `threatLevel` is
    /// the one that was set last, if any was.
    void Check(std::optional<int> threatLevel);
    /// Sets everything back that a client may have changed.
    void Reset();

    [[nodiscard]] const panel::PanelPaths &Paths() const { return paths_; }

private:
    using Files = std::map<std::filesystem::path, std::string>;
    using Names = std::set<std::filesystem::path>;

    /// What a directory holds.
    [[nodiscard]] static Names Entries(const std::filesystem::path &directory);
    /// The directories in which no client may make anything.
    [[nodiscard]] std::vector<std::filesystem::path> Watched() const
    {
        return {"/tmp", paths_.Databases, paths_.Images.parent_path(),
                paths_.CommandTool.parent_path()};
    }

    [[nodiscard]] Files ReadImages() const;
    /// The one call that the tool has recorded.
    [[nodiscard]] static ToolCall TakeRecord();
    void CheckTables(std::optional<int> threatLevel) const;
    void CheckPlaces() const;

    panel::PanelPaths paths_{"/"};
    std::string mainBytes_;
    std::map<std::string, std::string> rowQueries_; ///< of each table of the main database
    std::map<std::string, std::string> rows_;       ///< what they give at the start
    std::string logBytes_;
    std::string networkBytes_;
    Files images_;
    std::map<std::filesystem::path, Names> entries_;
    std::vector<ToolCall> calls_;
};

/// A file's content.
[[nodiscard]] std::string ReadWhole(const std::filesystem::path &file);

} // namespace nimbra::fuzz
