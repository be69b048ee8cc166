#include "simulator/panel/Sqlite.h"

#include <stdexcept>

namespace nimbra::panel {

constexpr int kBusyTimeoutMs = 3000;

SqliteFile::SqliteFile(const std::string &name) : path_(name)
{
    sqlite3 *opened = nullptr;
    const int result = sqlite3_open(name.c_str(), &opened);
    handle_.reset(opened);
    if (result != SQLITE_OK)
        Fail();
    sqlite3_busy_timeout(opened, kBusyTimeoutMs);
}

void SqliteFile::Run(const std::string &sql)
{
    if (sqlite3_exec(handle_.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
        Fail();
}

void SqliteFile::Fail() const
{
    throw std::runtime_error(path_ + ": " + sqlite3_errmsg(handle_.get()));
}

SqliteStatement::SqliteStatement(SqliteFile &file, const std::string &sql) : database_(file)
{
    sqlite3_stmt *prepared = nullptr;
    Check(sqlite3_prepare_v2(file.handle_.get(), sql.c_str(), -1, &prepared, nullptr));
    handle_.reset(prepared);
}

bool SqliteStatement::Step()
{
    const int result = sqlite3_step(handle_.get());
    if (result == SQLITE_ROW)
        return true;
    if (result != SQLITE_DONE)
        database_.Fail();
    return false;
}

std::vector<std::string> SqliteStatement::Row() const
{
    std::vector<std::string> row;
    const int columns = sqlite3_column_count(handle_.get());
    for (int column = 0; column < columns; ++column) {
        const void *bytes = sqlite3_column_blob(handle_.get(), column);
        const int length = sqlite3_column_bytes(handle_.get(), column);
        row.emplace_back(static_cast<const char *>(bytes), static_cast<std::size_t>(length));
    }
    return row;
}

void SqliteStatement::Bind(int position, int value)
{
    Check(sqlite3_bind_int(handle_.get(), position, value));
}

void SqliteStatement::Bind(int position, const std::string &value)
{
    Check(sqlite3_bind_text(handle_.get(), position, value.data(), static_cast<int>(value.size()),
                            SQLITE_TRANSIENT));
}

void SqliteStatement::Check(int result) const
{
    if (result != SQLITE_OK)
        database_.Fail();
}

} // namespace nimbra::panel
