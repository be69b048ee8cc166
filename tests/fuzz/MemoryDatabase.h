#pragma once

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace nimbra::fuzz {

/// Sets SQLite up for one thread and with memory of its own. To be called before SQLite's first
/// use.
void ConfigureSqlite();

/// Watches what the statements of a connection may change.
struct Changes
{
    std::span<const std::string_view> Tables;
    /// Bit n: a statement that changes table n has been prepared.
    unsigned Made = 0;
};

/// Watches a connection from now on. A statement that changes another table, or does anything else
/// than to read and change rows and to attach a database, is a finding when it is prepared.
void Watch(sqlite3 *connection, Changes *changes);
void Unwatch(sqlite3 *connection);

/// A database in memory, under the name and with the content of a database file. Whatever SQLite
/// opens under that name from now on is this database; other names are files as usual. It is never
/// deleted.
class MemoryDatabase
{
public:
    MemoryDatabase(const std::string &name, std::string content);
    MemoryDatabase(const MemoryDatabase &) = delete;
    MemoryDatabase &operator=(const MemoryDatabase &) = delete;

    /// Whether anything has been written to it since the last reset, even if it is as before.
    [[nodiscard]] bool HasChanged() const { return hasChanged_; }
    /// Restores the first content, with another change counter in it.
    void Reset();

private:
    friend class FileSystem;

    static constexpr std::size_t kPage = 4096;

    struct Closer
    {
        void operator()(sqlite3 *connection) const { sqlite3_close(connection); }
    };

    void OnWrite(sqlite3_int64 offset, int size);
    void OnTruncate() { hasChanged_ = true; }
    void Restore(std::size_t page);

    std::string firstContent_;
    std::uint32_t changes_ = 0;
    bool hasChanged_ = false;
    std::vector<bool> writtenPages_;
    /// Keeps the database in existence.
    std::unique_ptr<sqlite3, Closer> connection_;
    sqlite3_file *file_ = nullptr;
};

/// Gives the agent, in a fuzzer that wraps the functions of SQLite that the agent calls,
/// connections that were open before: a new one reads the whole schema, which takes longer than a
/// request. The use of a connection that is not open any more, or of a statement that is finalized,
/// is a finding.
class Connections
{
public:
    /// The agent may change `tables` of the database `main`, and nothing else.
    Connections(std::string main, std::span<const std::string_view> tables)
        : main_(std::move(main)), ofMain_{tables}
    {}
    Connections(const Connections &) = delete;
    Connections &operator=(const Connections &) = delete;

    /// From now on what is opened is the agent's. Without reuse each connection is new and is
    /// really closed.
    void Begin(bool isReuseWanted);
    /// Until now. A connection or a statement that is not closed is a finding.
    void End();
    /// What has been changed since the last call, as in Changes::Made.
    [[nodiscard]] unsigned TakeChanges() { return std::exchange(ofMain_.Made, 0); }

private:
    friend struct WrappedSqlite;

    struct Connection
    {
        std::string Name;
        sqlite3 *Handle;
        bool IsOpen;
    };

    [[nodiscard]] Connection *Find(sqlite3 *handle);
    int Open(const char *name, sqlite3 **handle);
    int Close(sqlite3 *handle);
    static void Detach(sqlite3 *handle);

    std::string main_;
    Changes ofMain_;
    Changes ofOthers_;
    bool isReuseWanted_ = true;
    std::vector<Connection> connections_;
    std::vector<sqlite3_stmt *> statements_; ///< that are not finalized
};

} // namespace nimbra::fuzz
