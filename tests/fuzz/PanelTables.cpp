#include "fuzz/PanelTables.h"

#include "fuzz/Finding.h"

#include <cstddef>
#include <cstring>
#include <string_view>

namespace nimbra::fuzz {

namespace {

bool IsSameValue(sqlite3_stmt *a, sqlite3_stmt *b, int column)
{
    const int type = sqlite3_column_type(a, column);
    if (type != sqlite3_column_type(b, column))
        return false;
    if (type == SQLITE_NULL)
        return true;
    if (type == SQLITE_INTEGER)
        return sqlite3_column_int64(a, column) == sqlite3_column_int64(b, column);
    // A real number as its text, which has all its digits.
    const void *const bytesOfA = sqlite3_column_blob(a, column);
    const void *const bytesOfB = sqlite3_column_blob(b, column);
    const int size = sqlite3_column_bytes(a, column);
    return size == sqlite3_column_bytes(b, column) &&
           (size == 0 || std::memcmp(bytesOfA, bytesOfB, static_cast<std::size_t>(size)) == 0);
}

bool IsSameRow(sqlite3_stmt *a, sqlite3_stmt *b)
{
    for (int column = sqlite3_column_count(a); column-- > 0;)
        if (!IsSameValue(a, b, column))
            return false;
    return true;
}

} // namespace

PanelTables::PanelTables(const std::string &file)
{
    sqlite3 *connection = nullptr;
    const int result = sqlite3_open(file.c_str(), &connection);
    connection_.reset(connection);
    Require(result == SQLITE_OK, "a database cannot be opened");
}

PanelTables::Statement PanelTables::Prepare(const char *sql)
{
    sqlite3_stmt *statement = nullptr;
    const char *rest = nullptr;
    const int result = sqlite3_prepare_v2(connection_.get(), sql, -1, &statement, &rest);
    if (result != SQLITE_OK)
        Report("a statement that SQLite refuses", sqlite3_errmsg(connection_.get()), sql);
    Require(*rest == '\0', "more than one statement");
    return Statement(statement);
}

bool PanelTables::Step(sqlite3_stmt *statement)
{
    const int result = sqlite3_step(statement);
    if (result != SQLITE_ROW && result != SQLITE_DONE)
        Report("a statement that fails", sqlite3_errmsg(connection_.get()), sqlite3_sql(statement));
    return result == SQLITE_ROW;
}

sqlite3_stmt *PanelTables::Kept(const std::string &sql)
{
    auto found = statements_.find(sql);
    if (found == statements_.end())
        found = statements_.emplace(sql, Prepare(sql.c_str())).first;
    sqlite3_reset(found->second.get());
    return found->second.get();
}

void PanelTables::Run(const char *sql)
{
    const Statement statement = Prepare(sql);
    while (Step(statement.get())) {
    }
}

void PanelTables::ForEach(const std::string &sql, const std::function<void(sqlite3_stmt *)> &onRow)
{
    sqlite3_stmt *const statement = Kept(sql);
    while (Step(statement))
        onRow(statement);
    sqlite3_reset(statement);
}

std::map<std::string, std::string> PanelTables::Texts()
{
    std::map<std::string, std::string> queries;
    ForEach("SELECT m.name, group_concat('quote(' || c.name || ')', '||'',''||')"
            " FROM sqlite_master AS m, pragma_table_info(m.name) AS c WHERE m.type='table'"
            " GROUP BY m.name",
            [&](sqlite3_stmt *row) {
                const std::string name = ColumnText(row, 0);
                queries[name] =
                    "SELECT group_concat(" + ColumnText(row, 1) + ", char(10)) FROM " + name;
            });
    queries["schema"] = "SELECT group_concat(name||ifnull(sql, ''), char(10)) FROM sqlite_master";
    std::map<std::string, std::string> texts;
    for (const auto &[name, query] : queries)
        ForEach(query,
                [&texts, table = name](sqlite3_stmt *row) { texts[table] = ColumnText(row, 0); });
    return texts;
}

bool PanelTables::HaveSameRows(PanelTables *a, PanelTables *b, const std::string &table)
{
    const std::string sql = "SELECT * FROM " + table;
    sqlite3_stmt *const rowsOfA = a->Kept(sql);
    sqlite3_stmt *const rowsOfB = b->Kept(sql);
    bool isSame = true;
    bool isEnd = false;
    while (isSame && !isEnd) {
        isEnd = !a->Step(rowsOfA);
        isSame = isEnd == !b->Step(rowsOfB) && (isEnd || IsSameRow(rowsOfA, rowsOfB));
    }
    sqlite3_reset(rowsOfA);
    sqlite3_reset(rowsOfB);
    return isSame;
}

std::string ColumnText(sqlite3_stmt *statement, int column)
{
    const void *const bytes = sqlite3_column_blob(statement, column);
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
    return bytes == nullptr ? "" : std::string(static_cast<const char *>(bytes), size);
}

} // namespace nimbra::fuzz
