#pragma once

#include <atomic>
#include <cstdint>
#include <type_traits>

/// What a test and the fault library inside the agent share: a file that both have mapped. The
/// test writes what shall fail, the library counts.
namespace nimbra::faults {

/// Where calls of the agent can be made to fail. A call counts at one point only, and only if the
/// agent itself makes it: the programs that it runs are left alone.
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
    MakeTemporary, ///< mkostemp
    Write,
    Synchronise, ///< fsync
    Rename,
    OpenDatabaseFile, ///< by SQLite itself
    WriteDatabaseFile,
    SynchroniseDatabaseFile,
    OpenDatabase,     ///< sqlite3_open
    PrepareStatement, ///< sqlite3_prepare_v2
    StepStatement,    ///< sqlite3_step
    ExecuteStatement, ///< sqlite3_exec
    Count
};

inline constexpr unsigned kPoints = static_cast<unsigned>(Point::Count);

/// The file that holds the board; the agent is told by this variable of its environment.
inline constexpr char kBoardVariable[] = "NIMBRA_FAULT_BOARD";

/// The orders and counts of one point. All zero stands for no fault.
struct PointState
{
    std::atomic<std::uint32_t> First;  ///< the call, counted from 1, that fails first; 0: none does
    std::atomic<std::uint32_t> Number; ///< how many fail from there on
    std::atomic<std::int32_t> Error;   ///< errno, or SQLite's result code
    std::atomic<std::uint32_t> Delay;  ///< the milliseconds that each of them takes to fail
    std::atomic<std::uint32_t> Calls;  ///< made since the orders were given
    std::atomic<std::uint32_t> Failed; ///< of them
};

struct FaultBoard
{
    PointState Points[kPoints];
    /// How far the agent's clock is ahead of the machine's.
    std::atomic<std::int64_t> ClockSeconds;
};
static_assert(std::atomic<std::uint32_t>::is_always_lock_free &&
              std::atomic<std::int64_t>::is_always_lock_free &&
              std::is_standard_layout_v<FaultBoard>);

} // namespace nimbra::faults
