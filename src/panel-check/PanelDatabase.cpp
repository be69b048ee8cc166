#include "panel-check/PanelDatabase.h"

#include "base/Descriptor.h"

#include <sqlite3.h>

#include <fcntl.h>
#include <unistd.h>

namespace nimbra::check {

namespace {

constexpr int kLockMilliseconds = 3000;

struct Finalizer
{
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};
using Query = std::unique_ptr<sqlite3_stmt, Finalizer>;

bool Exists(const std::string &path)
{
    return access(path.c_str(), F_OK) == 0;
}

/// Whether the file says in its header that it has a write-ahead log.
bool HasWriteAheadLog(const std::string &path)
{
    constexpr off_t kReadVersion = 19;
    constexpr char kWriteAheadLog = 2;
    const auto file =
        Descriptor::AboveStandardInput(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    char version = 0;
    return pread(file.Get(), &version, 1, kReadVersion) == 1 && version == kWriteAheadLog;
}

/// The name for SQLite under which opening the file creates none. With a write-ahead log it would
/// create the two files of that log, unless they exist already; without them the file is whole, and
/// is read as one that nobody writes.
std::string ReadOnlyName(const std::string &path)
{
    const bool isAlone = HasWriteAheadLog(path) && !Exists(path + "-wal");
    return "file:" + path + (isAlone ? "?immutable=1" : "?mode=ro");
}

/// A log that a power failure left behind: to read it, SQLite must first create a file.
bool IsLeftBehind(const std::string &path)
{
    return HasWriteAheadLog(path) && Exists(path + "-wal") && !Exists(path + "-shm");
}

Query Prepare(sqlite3 *handle, const std::string &text)
{
    sqlite3_stmt *statement = nullptr;
    sqlite3_prepare_v2(handle, text.c_str(), -1, &statement, nullptr);
    return Query(statement);
}

} // namespace

PanelDatabase::PanelDatabase(const std::string &path)
{
    if (IsLeftBehind(path)) {
        KeepError(SQLITE_READONLY);
        return;
    }
    sqlite3 *handle = nullptr;
    const int code = sqlite3_open_v2(ReadOnlyName(path).c_str(), &handle,
                                     SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
    // SQLite hands out a handle even when it cannot open the file, and it owns memory.
    handle_.reset(handle);
    if (code != SQLITE_OK) {
        KeepError(code);
        return;
    }
    sqlite3_busy_timeout(handle, kLockMilliseconds);
    static_cast<void>(Numbers("SELECT COUNT(*) FROM sqlite_master"));
}

bool PanelDatabase::Accepts(const std::string &query)
{
    return Prepare(handle_.get(), query) != nullptr;
}

std::optional<std::vector<std::int64_t>> PanelDatabase::Numbers(const std::string &query)
{
    const Query statement = Prepare(handle_.get(), query);
    std::vector<std::int64_t> numbers;
    int code = SQLITE_ROW;
    while (statement != nullptr && (code = sqlite3_step(statement.get())) == SQLITE_ROW)
        numbers.push_back(sqlite3_column_int64(statement.get(), 0));
    if (code == SQLITE_DONE)
        return numbers;
    KeepError(sqlite3_errcode(handle_.get()));
    return std::nullopt;
}

void PanelDatabase::KeepError(int code)
{
    constexpr int kPrimary = 0xFF;
    switch (code & kPrimary) {
    case SQLITE_BUSY:
        error_ = "is locked by another program for more than 3 seconds";
        break;
    case SQLITE_NOTADB:
        error_ = "is not an SQLite database";
        break;
    case SQLITE_CORRUPT:
        error_ = "is damaged";
        break;
    case SQLITE_READONLY:
        error_ = "holds a change that a power failure interrupted";
        break;
    default:
        error_ = std::string("cannot be read: ") +
                 (handle_ ? sqlite3_errmsg(handle_.get()) : sqlite3_errstr(code));
    }
}

void PanelDatabase::Closer::operator()(sqlite3 *handle) const
{
    sqlite3_close(handle);
}

} // namespace nimbra::check
