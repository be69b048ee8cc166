#include "fuzz/MemoryDatabase.h"

#include "fuzz/Finding.h"
#include "fuzz/SqliteMemory.h"

#include <algorithm>
#include <map>
#include <utility>

// The linker prescribes the names of wrapped functions.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" int __real_sqlite3_open(const char *name, sqlite3 **connection);
extern "C" int __real_sqlite3_close(sqlite3 *connection);
extern "C" int __real_sqlite3_busy_handler(sqlite3 *connection, int (*handler)(void *, int),
                                           void *argument);
extern "C" int __real_sqlite3_exec(sqlite3 *connection, const char *sql,
                                   int (*onRow)(void *, int, char **, char **), void *argument,
                                   char **message);
extern "C" int __real_sqlite3_errcode(sqlite3 *connection);
extern "C" int __real_sqlite3_prepare_v2(sqlite3 *connection, const char *sql, int size,
                                         sqlite3_stmt **statement, const char **rest);
extern "C" int __real_sqlite3_step(sqlite3_stmt *statement);
extern "C" int __real_sqlite3_finalize(sqlite3_stmt *statement);
extern "C" int __real_sqlite3_column_int(sqlite3_stmt *statement, int column);
extern "C" const unsigned char *__real_sqlite3_column_text(sqlite3_stmt *statement, int column);
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace nimbra::fuzz {

/// SQLite's default file system, in which the databases in memory have their names.
class FileSystem
{
public:
    static FileSystem &Get()
    {
        static auto *const instance = new FileSystem;
        return *instance;
    }

    void Add(const std::string &name, MemoryDatabase *database) { databases_[name] = database; }

private:
    FileSystem()
    {
        Require(sqlite3_initialize() == SQLITE_OK, "SQLite does not start");
        files_ = sqlite3_vfs_find(nullptr);
        // It shares databases that have a name among all connections of the process.
        memory_ = sqlite3_vfs_find("memdb");
        Require(files_ != nullptr && memory_ != nullptr, "SQLite lacks a file system");
        methods_ = *files_;
        methods_.zName = "fuzz";
        databaseAt_ = std::max(files_->szOsFile, memory_->szOsFile);
        methods_.szOsFile = databaseAt_ + static_cast<int>(sizeof(MemoryDatabase *));
        methods_.xOpen = [](sqlite3_vfs *, const char *name, sqlite3_file *file, int flags,
                            int *outFlags) { return Get().Open(name, file, flags, outFlags); };
        Require(sqlite3_vfs_register(&methods_, 1) == SQLITE_OK, "SQLite's file system");
    }

    int Open(const char *name, sqlite3_file *file, int flags, int *outFlags)
    {
        const auto found = name == nullptr ? databases_.end() : databases_.find(name);
        if (found == databases_.end())
            return files_->xOpen(files_, name, file, flags, outFlags);
        const int result = memory_->xOpen(memory_, name, file, flags, outFlags);
        if (result != SQLITE_OK)
            return result;
        DatabaseOf(file) = found->second;
        // The methods of the databases in memory, with a note of what is written.
        memoryMethods_ = file->pMethods;
        watchedMethods_ = *file->pMethods;
        watchedMethods_.xWrite = [](sqlite3_file *to, const void *bytes, int size,
                                    sqlite3_int64 offset) {
            Get().DatabaseOf(to)->OnWrite(offset, size);
            return Get().memoryMethods_->xWrite(to, bytes, size, offset);
        };
        watchedMethods_.xTruncate = [](sqlite3_file *to, sqlite3_int64 size) {
            Get().DatabaseOf(to)->OnTruncate();
            return Get().memoryMethods_->xTruncate(to, size);
        };
        file->pMethods = &watchedMethods_;
        return result;
    }

    /// The place behind an open file's own data.
    MemoryDatabase *&DatabaseOf(sqlite3_file *file) const
    {
        char *const place = reinterpret_cast<char *>(file) + databaseAt_;
        return *reinterpret_cast<MemoryDatabase **>(place);
    }

    sqlite3_vfs methods_ = {};
    sqlite3_vfs *files_ = nullptr;
    sqlite3_vfs *memory_ = nullptr;
    int databaseAt_ = 0;
    const sqlite3_io_methods *memoryMethods_ = nullptr;
    sqlite3_io_methods watchedMethods_ = {};
    std::map<std::string, MemoryDatabase *, std::less<>> databases_;
};

namespace {

Connections *theConnections = nullptr;

int Authorize(void *argument, int action, const char *table, const char * /*detail*/,
              const char *database, const char * /*trigger*/)
{
    switch (action) {
    case SQLITE_SELECT:
    case SQLITE_READ:
    case SQLITE_FUNCTION:
    case SQLITE_TRANSACTION:
    // Another database, whose rows are not to be changed.
    case SQLITE_ATTACH:
    case SQLITE_DETACH:
        return SQLITE_OK;
    case SQLITE_INSERT:
    case SQLITE_UPDATE:
    case SQLITE_DELETE:
        break;
    default:
        Report("a statement that does more than to read and change rows");
    }
    auto &changes = *static_cast<Changes *>(argument);
    const auto found =
        std::find(changes.Tables.begin(), changes.Tables.end(), std::string_view(table));
    if (found == changes.Tables.end() || std::string_view(database) != "main")
        Report(std::string("a statement that changes the table ") + table);
    changes.Made |= 1U << static_cast<unsigned>(found - changes.Tables.begin());
    return SQLITE_OK;
}

} // namespace

void ConfigureSqlite()
{
    sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    // The address sanitizer knows nothing of the blocks in lookaside memory.
    sqlite3_config(SQLITE_CONFIG_LOOKASIDE, 0, 0);
    InstallSqliteMemory();
}

void Watch(sqlite3 *connection, Changes *changes)
{
    Require(sqlite3_set_authorizer(connection, Authorize, changes) == SQLITE_OK, "an authorizer");
}

void Unwatch(sqlite3 *connection)
{
    Require(sqlite3_set_authorizer(connection, nullptr, nullptr) == SQLITE_OK, "an authorizer");
}

MemoryDatabase::MemoryDatabase(const std::string &name, std::string content)
    : firstContent_(std::move(content)), writtenPages_(firstContent_.size() / kPage, true)
{
    FileSystem::Get().Add(name, this);
    sqlite3 *connection = nullptr;
    const int result = sqlite3_open(name.c_str(), &connection);
    connection_.reset(connection);
    Require(result == SQLITE_OK, name + ": cannot be opened in memory");
    Require(sqlite3_file_control(connection, "main", SQLITE_FCNTL_FILE_POINTER, &file_) ==
                SQLITE_OK,
            "the file of a database");
    Reset();
}

void MemoryDatabase::OnWrite(sqlite3_int64 offset, int size)
{
    hasChanged_ = true;
    const std::size_t page = static_cast<std::size_t>(offset) / kPage;
    Require(static_cast<std::size_t>(offset) % kPage + static_cast<std::size_t>(size) <= kPage,
            "a database whose pages have another size");
    if (page < writtenPages_.size())
        writtenPages_[page] = true;
}

void MemoryDatabase::Restore(std::size_t page)
{
    const std::size_t at = page * kPage;
    Require(file_->pMethods->xWrite(file_, firstContent_.data() + at, static_cast<int>(kPage),
                                    static_cast<sqlite3_int64>(at)) == SQLITE_OK,
            "the first content of a database");
    writtenPages_[page] = false;
}

void MemoryDatabase::Reset()
{
    // Connections read their pages anew when the change counter in the header has changed. The
    // header has it in two places.
    constexpr std::uint32_t kMoreThanAnInputMakes = 4096;
    changes_ += kMoreThanAnInputMakes;
    for (const std::size_t place : {std::size_t{24}, std::size_t{92}})
        for (std::size_t i = 0; i < sizeof changes_; ++i)
            firstContent_.at(place + i) = static_cast<char>(changes_ >> (24 - 8 * i));
    writtenPages_[0] = true;
    for (std::size_t page = 0; page < writtenPages_.size(); ++page)
        if (writtenPages_[page])
            Restore(page);
    Require(file_->pMethods->xTruncate(file_, static_cast<sqlite3_int64>(firstContent_.size())) ==
                SQLITE_OK,
            "the size of a database");
    hasChanged_ = false;
}

void Connections::Begin(bool isReuseWanted)
{
    theConnections = this;
    isReuseWanted_ = isReuseWanted;
}

void Connections::End()
{
    theConnections = nullptr;
    for (const Connection &connection : connections_)
        Require(!connection.IsOpen, "a database is left open");
    Require(statements_.empty(), "a statement is not finalized");
}

Connections::Connection *Connections::Find(sqlite3 *handle)
{
    for (Connection &connection : connections_)
        if (connection.Handle == handle)
            return &connection;
    return nullptr;
}

void Connections::Detach(sqlite3 *handle)
{
    // The first database after "main" and "temp".
    constexpr int kAttached = 2;
    while (const char *attached = sqlite3_db_name(handle, kAttached))
        Require(__real_sqlite3_exec(handle, ("DETACH " + std::string(attached)).c_str(), nullptr,
                                    nullptr, nullptr) == SQLITE_OK,
                "an attached database");
}

int Connections::Open(const char *name, sqlite3 **handle)
{
    if (isReuseWanted_)
        for (Connection &connection : connections_)
            if (!connection.IsOpen && connection.Name == name) {
                connection.IsOpen = true;
                *handle = connection.Handle;
                // Clears what is left of the last error.
                return __real_sqlite3_errcode(*handle) == SQLITE_OK
                           ? SQLITE_OK
                           : __real_sqlite3_exec(*handle, "", nullptr, nullptr, nullptr);
            }
    const int result = __real_sqlite3_open(name, handle);
    Require(result == SQLITE_OK, "a database that cannot be opened");
    Watch(*handle, main_ == name ? &ofMain_ : &ofOthers_);
    connections_.push_back({name, *handle, true});
    return result;
}

int Connections::Close(sqlite3 *handle)
{
    if (handle == nullptr)
        return SQLITE_OK;
    Connection *const found = Find(handle);
    Require(sqlite3_next_stmt(handle, nullptr) == nullptr, "a statement is not finalized");
    found->IsOpen = false;
    if (!isReuseWanted_) {
        connections_.erase(connections_.begin() + (found - connections_.data()));
        return __real_sqlite3_close(handle);
    }
    if (sqlite3_get_autocommit(handle) == 0)
        __real_sqlite3_exec(handle, "ROLLBACK", nullptr, nullptr, nullptr);
    Detach(handle);
    return __real_sqlite3_busy_handler(handle, nullptr, nullptr);
}

/// The calls of the agent, and those of the fuzzer between two sessions.
struct WrappedSqlite
{
    static int Open(const char *name, sqlite3 **handle)
    {
        return theConnections == nullptr ? __real_sqlite3_open(name, handle)
                                         : theConnections->Open(name, handle);
    }

    static int Close(sqlite3 *handle)
    {
        return theConnections == nullptr ? __real_sqlite3_close(handle)
                                         : theConnections->Close(Checked(handle));
    }

    /// The connection, which must be one that the agent has open.
    static sqlite3 *Checked(sqlite3 *handle)
    {
        if (theConnections != nullptr && handle != nullptr) {
            const Connections::Connection *const found = theConnections->Find(handle);
            Require(found != nullptr && found->IsOpen, "a closed connection to a database is used");
        }
        return handle;
    }

    /// Where a message of an error goes. The leak detection does not see SQLite's memory, so the
    /// agent must not take any of it.
    static char **Checked(char **message)
    {
        Require(theConnections == nullptr || message == nullptr, "a message that is to be freed");
        return message;
    }

    static void Add(sqlite3_stmt *statement)
    {
        if (theConnections != nullptr && statement != nullptr)
            theConnections->statements_.push_back(statement);
    }

    /// The statement, which must not be one that is finalized.
    static sqlite3_stmt *Checked(sqlite3_stmt *statement)
    {
        if (theConnections != nullptr && statement != nullptr) {
            const std::vector<sqlite3_stmt *> &all = theConnections->statements_;
            Require(std::find(all.rbegin(), all.rend(), statement) != all.rend(),
                    "a finalized statement is used");
        }
        return statement;
    }

    static void Remove(sqlite3_stmt *statement)
    {
        if (theConnections != nullptr && Checked(statement) != nullptr)
            std::erase(theConnections->statements_, statement);
    }
};

} // namespace nimbra::fuzz

using nimbra::fuzz::WrappedSqlite;

// The linker prescribes the names of wrapping functions.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" int __wrap_sqlite3_open(const char *name, sqlite3 **connection)
{
    return WrappedSqlite::Open(name, connection);
}

extern "C" int __wrap_sqlite3_close(sqlite3 *connection)
{
    return WrappedSqlite::Close(connection);
}

extern "C" int __wrap_sqlite3_busy_handler(sqlite3 *connection, int (*handler)(void *, int),
                                           void *argument)
{
    return __real_sqlite3_busy_handler(WrappedSqlite::Checked(connection), handler, argument);
}

extern "C" int __wrap_sqlite3_exec(sqlite3 *connection, const char *sql,
                                   int (*onRow)(void *, int, char **, char **), void *argument,
                                   char **message)
{
    return __real_sqlite3_exec(WrappedSqlite::Checked(connection), sql, onRow, argument,
                               WrappedSqlite::Checked(message));
}

extern "C" int __wrap_sqlite3_errcode(sqlite3 *connection)
{
    return __real_sqlite3_errcode(WrappedSqlite::Checked(connection));
}

extern "C" int __wrap_sqlite3_prepare_v2(sqlite3 *connection, const char *sql, int size,
                                         sqlite3_stmt **statement, const char **rest)
{
    const int result =
        __real_sqlite3_prepare_v2(WrappedSqlite::Checked(connection), sql, size, statement, rest);
    WrappedSqlite::Add(*statement);
    return result;
}

extern "C" int __wrap_sqlite3_step(sqlite3_stmt *statement)
{
    return __real_sqlite3_step(WrappedSqlite::Checked(statement));
}

extern "C" int __wrap_sqlite3_finalize(sqlite3_stmt *statement)
{
    WrappedSqlite::Remove(statement);
    return __real_sqlite3_finalize(statement);
}

extern "C" int __wrap_sqlite3_column_int(sqlite3_stmt *statement, int column)
{
    return __real_sqlite3_column_int(WrappedSqlite::Checked(statement), column);
}

extern "C" const unsigned char *__wrap_sqlite3_column_text(sqlite3_stmt *statement, int column)
{
    return __real_sqlite3_column_text(WrappedSqlite::Checked(statement), column);
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
