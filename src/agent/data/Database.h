#pragma once

#include "base/FixedText.h"
#include "base/Log.h"
#include "data/ConnectionMemory.h"
#include "data/LockTime.h"

#include <cstddef>
#include <cstdint>

struct sqlite3;
struct sqlite3_stmt;

namespace nimbra {

class SqlText;

/// One connection to one of the panel's database files, open while the object lives. A database
/// that the panel has locked is waited for from the request's time for locks; once that is spent,
/// every statement fails at once. One object, one thread.
class Database
{
public:
    /// Sets SQLite up for the agent's use of it. Main thread, before the first connection.
    static void ConfigureSqlite();

    /// Opens the file `path`. On failure logs "sqlite3_open fail" with `logSource` and the calling
    /// method; IsOpen() is then false and nothing else may be called.
    Database(const char *path, const char *logSource, CallPlace place = CallPlace::Here());
    ~Database();
    Database(const Database &) = delete;
    Database &operator=(const Database &) = delete;

    [[nodiscard]] bool IsOpen() const { return handle_ != nullptr; }

    /// Runs a statement that gives no rows. Returns SQLite's result code, 0 on success; a refused
    /// text is not run and counts as a statement that SQLite refuses. Logs nothing.
    [[nodiscard]] int Execute(const SqlText &sql);
    /// The same for a text that is known to be whole.
    [[nodiscard]] int Execute(const char *sql);

    /// The first column of a query's first row; 0 when the query fails or gives no row.
    [[nodiscard]] std::int32_t FirstNumber(const SqlText &sql);

    /// Whether the last statement, or one before it, has failed because the panel kept the database
    /// locked: what it was to find out is then not known.
    [[nodiscard]] bool IsLocked() const;

private:
    friend class Statement;

    LockTime lockTime_;
    ConnectionMemory memory_;
    sqlite3 *handle_ = nullptr;
};

/// A prepared query and its current row. Lives no longer than its Database. One thread.
class Statement
{
public:
    /// Prepares `sql`; silent when that fails or the text was refused.
    Statement(Database &database, const SqlText &sql);
    ~Statement();
    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;

    /// Moves to the next row; false when there is none, or on an error.
    [[nodiscard]] bool Step();

    /// Reads the next columns of the current row into the fields, in order, beginning with the
    /// first: a number keeps its low 32 bits, 0 for NULL and for text without digits; a text is cut
    /// to its field, empty for NULL.
    template <class... Fields>
    void Read(Fields *...fields)
    {
        (ReadColumn(fields), ...);
    }

private:
    void ReadColumn(std::int32_t *number);
    template <std::size_t N>
    void ReadColumn(FixedText<N> *text)
    {
        text->Assign(NextText());
    }
    [[nodiscard]] const char *NextText();

    sqlite3_stmt *handle_ = nullptr;
    /// The column that is read next.
    int column_ = 0;
};

} // namespace nimbra
