#include "data/Database.h"

#include "data/SqlText.h"

#include <sqlite3.h>

namespace nimbra {

void Database::ConfigureSqlite()
{
    // No connection is used by two threads, and nobody reads memory statistics.
    sqlite3_config(SQLITE_CONFIG_MULTITHREAD);
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    // A connection reads a few pages: none is allocated before it is needed.
    sqlite3_config(SQLITE_CONFIG_PAGECACHE, nullptr, 0, 0);
    ConnectionMemory::Install();
    // What SQLite keeps for good is not part of a connection's memory.
    sqlite3_initialize();
}

Database::Database(const char *path, const char *logSource, CallPlace place)
{
    if (sqlite3_open(path, &handle_) != SQLITE_OK) {
        // SQLite hands out a handle even then, and it owns memory.
        sqlite3_close(handle_);
        handle_ = nullptr;
        Log(place.In(logSource), "sqlite3_open fail");
        return;
    }
    sqlite3_busy_handler(
        handle_, [](void *, int attempt) { return LockTime::Wait(attempt) ? 1 : 0; }, nullptr);
}

Database::~Database()
{
    sqlite3_close(handle_);
}

int Database::Execute(const SqlText &sql)
{
    return sql.IsRefused() ? SQLITE_ERROR : Execute(sql.Get());
}

int Database::Execute(const char *sql)
{
    return LockTime::IsSpent() ? SQLITE_BUSY
                               : sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr);
}

std::int32_t Database::FirstNumber(const SqlText &sql)
{
    std::int32_t number = 0;
    Statement query(*this, sql);
    if (query.Step())
        query.Read(&number);
    return number;
}

bool Database::IsLocked() const
{
    const int code = sqlite3_errcode(handle_);
    return LockTime::IsSpent() || code == SQLITE_BUSY || code == SQLITE_LOCKED;
}

Statement::Statement(Database &database, const SqlText &sql)
{
    if (!sql.IsRefused() && !LockTime::IsSpent())
        sqlite3_prepare_v2(database.handle_, sql.Get(), -1, &handle_, nullptr);
}

Statement::~Statement()
{
    sqlite3_finalize(handle_);
}

bool Statement::Step()
{
    column_ = 0;
    return !LockTime::IsSpent() && sqlite3_step(handle_) == SQLITE_ROW;
}

void Statement::ReadColumn(std::int32_t *number)
{
    *number = sqlite3_column_int(handle_, column_++);
}

const char *Statement::NextText()
{
    const unsigned char *text = sqlite3_column_text(handle_, column_++);
    return text == nullptr ? "" : reinterpret_cast<const char *>(text);
}

} // namespace nimbra
