#pragma once

#include <sqlite3.h>

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace nimbra::fuzz {

/// The tables of a database, read by statements that are prepared once. Whatever SQLite refuses is
/// a finding.
class PanelTables
{
public:
    explicit PanelTables(const std::string &file);

    [[nodiscard]] sqlite3 *Connection() const { return connection_.get(); }
    /// Runs the first statement of a text, which must not have a second one.
    void Run(const char *sql);
    /// Passes each row of a query, which is prepared once, to a function.
    void ForEach(const std::string &sql, const std::function<void(sqlite3_stmt *)> &onRow);
    /// The tables, each with all its rows as one text that shows each value and its type; the
    /// schema is one of them.
    [[nodiscard]] std::map<std::string, std::string> Texts();
    /// Whether a table has the same rows, byte by byte and in the same order, in two databases.
    [[nodiscard]] static bool HaveSameRows(PanelTables *a, PanelTables *b,
                                           const std::string &table);

private:
    struct Closer
    {
        void operator()(sqlite3 *connection) const { sqlite3_close(connection); }
        void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Closer>;

    [[nodiscard]] Statement Prepare(const char *sql);
    /// A statement that is kept, ready to run.
    [[nodiscard]] sqlite3_stmt *Kept(const std::string &sql);
    /// Whether there is another row.
    [[nodiscard]] bool Step(sqlite3_stmt *statement);

    std::unique_ptr<sqlite3, Closer> connection_;
    std::map<std::string, Statement> statements_;
};

/// A column of a statement's row as text.
[[nodiscard]] std::string ColumnText(sqlite3_stmt *statement, int column);

} // namespace nimbra::fuzz
