#pragma once

#include "simulator/panel/CallLog.h"
#include "simulator/panel/PanelPaths.h"
#include "simulator/panel/SampleData.h"
#include "support/ManagementClient.h"

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace nimbra::test {

/// A row of a table as texts. NULL is an empty text.
using Row = std::vector<std::string>;

/// The sample panel at the paths of a real one, and what a test reads from it. Works on the main
/// database unless another file is named. The constructor is for one thread, the rest for any.
class TestPanel
{
public:
    /// Whether the cloud link is enabled in the settings of the panel.
    enum class Cloud : bool
    {
        Disabled,
        Enabled
    };

    explicit TestPanel(const panel::PanelSize &size = {}, Cloud cloud = Cloud::Disabled);

    /// Runs statements that return no rows.
    void Run(const std::string &sql) const { Run(paths_.MainDatabase, sql); }
    static void Run(const std::string &file, const std::string &sql);
    [[nodiscard]] std::vector<Row> Rows(const std::string &sql) const
    {
        return Rows(paths_.MainDatabase, sql);
    }
    [[nodiscard]] static std::vector<Row> Rows(const std::string &file, const std::string &sql);
    /// The first column of the first row; "(no row)" if there is no row.
    [[nodiscard]] std::string Value(const std::string &sql) const;

    /// Empties a table and removes its keys and indexes, so that it keeps its rows in the order of
    /// their insertion.
    void DropKeys(const std::string &table) const;

    /// The statements of the journal, in the order of their sequence numbers.
    [[nodiscard]] std::vector<std::string> Journal() const;
    /// All calls of the command tool so far, or those from the given one on.
    [[nodiscard]] std::vector<panel::Call> Calls(std::size_t from = 0) const;
    /// Each table of a database with all its rows, as texts that show every value and its type.
    [[nodiscard]] static std::vector<std::string> Dump(const std::string &file);

    /// The files in /nimbra, except the command tool and its call log, and those in /tmp whose
    /// names start with "owned": with their content, or "(special)" if it is not a regular file.
    [[nodiscard]] std::map<std::string, std::string> Files() const;

    [[nodiscard]] const panel::PanelPaths &Paths() const { return paths_; }

private:
    panel::PanelPaths paths_{"/"};
};

/// A panel whose cloud link is enabled and finds its server on this machine. For an agent that is
/// started afterwards.
class CloudPanel : public TestPanel
{
public:
    CloudPanel();
};

/// The call of the command tool that records an event of a client at 127.0.0.1.
[[nodiscard]] panel::Call AuditCall(int eventCode, const std::string &userName = "admin");

/// Creates a client that has logged in. Fails the test if it cannot log in.
[[nodiscard]] ManagementClient LoggedIn(const panel::SampleLogin &login = panel::kController);

} // namespace nimbra::test
