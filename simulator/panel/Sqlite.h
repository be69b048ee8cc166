#pragma once

#include <sqlite3.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace nimbra::panel {

/// An open SQLite database. Not for several threads at once. Every failure throws
/// std::runtime_error with the file's path and SQLite's message.
class SqliteFile
{
public:
    /// Opens the file, creating an empty one when there is none. A locked database is waited for,
    /// 3 seconds at most.
    explicit SqliteFile(const std::string &name);

    /// Runs one or more statements that give no rows.
    void Run(const std::string &sql);

    /// Rows changed by the last INSERT, UPDATE or DELETE.
    [[nodiscard]] int Changes() const { return sqlite3_changes(handle_.get()); }

private:
    friend class SqliteStatement;
    struct Closer
    {
        void operator()(sqlite3 *database) const { sqlite3_close(database); }
    };

    [[noreturn]] void Fail() const;

    std::string path_;
    std::unique_ptr<sqlite3, Closer> handle_;
};

/// A prepared statement of a SqliteFile, which must outlive it. Failures throw as there.
class SqliteStatement
{
public:
    SqliteStatement(SqliteFile &file, const std::string &sql);

    /// Binds the values in order, runs the statement to its end and makes it ready to run again.
    /// An empty optional is bound as NULL.
    template <typename... Values>
    void Execute(const Values &...values)
    {
        int position = 0;
        (Bind(++position, values), ...);
        while (Step()) {
        }
        sqlite3_reset(handle_.get());
    }

    /// Fetches the next row; false at the end.
    [[nodiscard]] bool Step();

    /// The current row as texts; NULL reads as an empty text.
    [[nodiscard]] std::vector<std::string> Row() const;

    void Bind(int position, int value);
    void Bind(int position, const std::string &value);
    template <typename Value>
    void Bind(int position, const std::optional<Value> &value)
    {
        if (value)
            Bind(position, *value);
        else
            Check(sqlite3_bind_null(handle_.get(), position));
    }

private:
    struct Finalizer
    {
        void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
    };

    void Check(int result) const;

    SqliteFile &database_;
    std::unique_ptr<sqlite3_stmt, Finalizer> handle_;
};

} // namespace nimbra::panel
