#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

/// The state that a test shares with the fault library inside the agent: a file that both processes
/// map. The test writes the fault rules, the library counts the calls.
namespace nimbra::faults {

/// The groups of calls that can be made to fail. A call belongs to at most one point, and only
/// calls of the agent itself count: the programs that it runs are not affected.
enum class Point : unsigned
{
    Allocate, ///< malloc, calloc and realloc
    StreamSocket,
    DatagramSocket,
    ReuseAddress, ///< setsockopt of SO_REUSEADDR
    Broadcast,    ///< setsockopt of SO_BROADCAST
    StatusFlags,  ///< fcntl of F_GETFL and F_SETFL
    BindStream,
    BindDatagram,
    Listen,
    Accept,
    Connect,
    Send,
    Receive,
    SendDatagram,
    ReceiveDatagram,
    CreateThread,
    OpenPipe, ///< popen
    RunShell, ///< system
    OpenImage,
    CreateTemporary, ///< mkostemp
    Write,
    Sync,          ///< fsync of a file
    SyncDirectory, ///< fsync of a directory
    Rename,
    OpenDatabaseFile, ///< by SQLite itself
    WriteDatabaseFile,
    SyncDatabaseFile,
    OpenDatabase,     ///< sqlite3_open
    PrepareStatement, ///< sqlite3_prepare_v2
    StepStatement,    ///< sqlite3_step
    ExecuteStatement, ///< sqlite3_exec
    Count
};

inline constexpr unsigned kPoints = static_cast<unsigned>(Point::Count);

/// The environment variable that names the file.
inline constexpr char kStateVariable[] = "NIMBRA_FAULT_STATE";

/// The fault rule and the counts of one point. All zeros mean no fault.
struct PointState
{
    std::atomic<std::uint32_t> First;  ///< the first call that fails, counted from 1; 0: no call
    std::atomic<std::uint32_t> Number; ///< of calls that fail, the first included
    std::atomic<std::int32_t> Error;   ///< an errno, or a result code of SQLite
    std::atomic<std::uint32_t> Delay;  ///< milliseconds that a failing call takes
    std::atomic<std::uint32_t> Calls;  ///< made since the rule was set
    std::atomic<std::uint32_t> Failed; ///< of these calls
    std::atomic<std::uint32_t> Turn;   ///< of the last call, among the calls at all points
};

/// The first statements that the agent gives to SQLite, each ended by a zero byte.
inline constexpr std::uint32_t kStatements = 32;
inline constexpr std::size_t kStatementSize = 1024;

struct SharedState
{
    PointState Points[kPoints];
    std::atomic<std::uint32_t> Turns; ///< calls at all points
    std::atomic<std::uint32_t> StatementCount;
    char Statements[kStatements][kStatementSize];
    /// The agent's clock minus the machine's.
    std::atomic<std::int64_t> ClockSeconds;
};
static_assert(std::atomic<std::uint32_t>::is_always_lock_free &&
              std::atomic<std::int64_t>::is_always_lock_free &&
              std::is_standard_layout_v<SharedState>);

} // namespace nimbra::faults
