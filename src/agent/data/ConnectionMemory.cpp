#include "data/ConnectionMemory.h"

#include <sqlite3.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

namespace nimbra {

namespace {

class Pool;

/// Precedes each allocation.
struct Block
{
    Pool *Owner; ///< null for one of the C library's allocator
    std::size_t Size;
};

/// Sizes are multiples of this, which also keeps the alignment that SQLite needs.
constexpr std::size_t kStep = 16;
/// A page of SQLite's cache and what SQLite knows of it. On the common heap, the pages of several
/// connections that read much would stay with the agent as long as anything is allocated behind
/// them. Larger allocations are left to the C library's allocator.
constexpr std::size_t kLargestSize = 4096 + 512;
static_assert(kStep % sizeof(Block) == 0 && alignof(Block) <= kStep);

std::size_t RoundUp(std::size_t size)
{
    return (size + kStep - 1) / kStep * kStep;
}

/// The blocks of one thread at a time. A freed block serves the next allocation of its size.
/// A block may outlive the connection that it was allocated for, since SQLite shares what it knows
/// of a file among the connections to it: the pool then waits for the block before it serves again.
class Pool
{
public:
    /// A pool for the calling thread; null when memory is exhausted.
    static Pool *Join();
    /// Gives the pool up. The thread does not use it any more, except to free blocks.
    void Leave();

    /// Null when memory is exhausted. The pool's thread.
    Block *Take(std::size_t size);
    /// The pool's thread.
    void Return(Block *block);
    /// Any other thread, and the pool's own after Leave().
    void ReturnLate();

private:
    /// So large that the C library returns it to the system when it is freed. A connection that
    /// reads little writes to a part of one, and the rest of it takes no memory.
    struct Chunk
    {
        static constexpr std::size_t kSize = std::size_t{128} * 1024 - kStep;

        Chunk *Next;
        alignas(kStep) char Bytes[kSize];
    };
    struct FreeBlock
    {
        FreeBlock *Next;
    };

    /// How many pools wait for their next thread, each with its first chunk: enough while few
    /// requests overlap.
    static constexpr int kIdlePools = 2;

    Pool() = default;
    ~Pool() { FreeChunks(&chunks_); }

    /// Makes the pool serve again, or frees it. No block of it is in use.
    void Recycle();
    /// Makes the next chunk the one that is filled; false when memory is exhausted.
    bool AddChunk();
    static void FreeChunks(Chunk **first);

    static std::mutex idleMutex_;
    static Pool *idle_;
    static int idlePools_;

    /// In the order in which they are filled.
    Chunk *chunks_ = nullptr;
    Chunk *filling_ = nullptr;
    std::size_t used_ = 0;
    std::array<FreeBlock *, kLargestSize / kStep + 1> free_ = {};
    /// Blocks that the pool's thread has taken and not returned.
    int taken_ = 0;
    /// Minus the blocks that were returned late; after Leave() the blocks that are still in use.
    std::atomic<int> late_ = 0;
    Pool *nextIdle_ = nullptr;
};

std::mutex Pool::idleMutex_;
Pool *Pool::idle_ = nullptr;
int Pool::idlePools_ = 0;

/// The pool of the calling thread, which it gets with the first allocation of its connections.
struct Use
{
    Pool *Own = nullptr;
    int Connections = 0;
};
thread_local Use use;

Pool *Pool::Join()
{
    {
        const std::lock_guard lock(idleMutex_);
        if (idle_ != nullptr) {
            Pool *const pool = idle_;
            idle_ = pool->nextIdle_;
            --idlePools_;
            return pool;
        }
    }
    return new (std::nothrow) Pool;
}

void Pool::Leave()
{
    const int taken = taken_;
    if (late_.fetch_add(taken, std::memory_order_acq_rel) + taken == 0)
        Recycle();
}

Block *Pool::Take(std::size_t size)
{
    FreeBlock *&free = free_[size / kStep];
    const std::size_t space = sizeof(Block) + size;
    Block *block = nullptr;
    if (free != nullptr) {
        block = reinterpret_cast<Block *>(free) - 1;
        free = free->Next;
    } else {
        if ((filling_ == nullptr || Chunk::kSize - used_ < space) && !AddChunk())
            return nullptr;
        block = new (filling_->Bytes + used_) Block{this, size};
        // Keeps the next block aligned where a block's head is smaller than the step.
        used_ += RoundUp(space);
    }
    ++taken_;
    return block;
}

void Pool::Return(Block *block)
{
    FreeBlock *&free = free_[block->Size / kStep];
    free = new (block + 1) FreeBlock{free};
    --taken_;
}

void Pool::ReturnLate()
{
    if (late_.fetch_sub(1, std::memory_order_acq_rel) == 1)
        Recycle();
}

void Pool::Recycle()
{
    if (chunks_ != nullptr)
        FreeChunks(&chunks_->Next);
    filling_ = nullptr;
    free_.fill(nullptr);
    taken_ = 0;
    late_.store(0, std::memory_order_relaxed);
    {
        const std::lock_guard lock(idleMutex_);
        if (idlePools_ < kIdlePools) {
            nextIdle_ = idle_;
            idle_ = this;
            ++idlePools_;
            return;
        }
    }
    delete this;
}

bool Pool::AddChunk()
{
    Chunk **const next = filling_ == nullptr ? &chunks_ : &filling_->Next;
    if (*next == nullptr) {
        *next = new (std::nothrow) Chunk;
        if (*next == nullptr)
            return false;
        (*next)->Next = nullptr;
    }
    filling_ = *next;
    used_ = 0;
    return true;
}

void Pool::FreeChunks(Chunk **first)
{
    while (*first != nullptr) {
        Chunk *const chunk = *first;
        *first = chunk->Next;
        delete chunk;
    }
}

Block *BlockOf(void *memory)
{
    return static_cast<Block *>(memory) - 1;
}

void *Allocate(int bytes)
{
    const std::size_t size = RoundUp(static_cast<std::size_t>(bytes));
    if (use.Connections > 0 && size <= kLargestSize) {
        if (use.Own == nullptr)
            use.Own = Pool::Join();
        Block *const block = use.Own == nullptr ? nullptr : use.Own->Take(size);
        return block == nullptr ? nullptr : block + 1;
    }
    void *const memory = std::malloc(sizeof(Block) + size);
    return memory == nullptr ? nullptr : new (memory) Block{nullptr, size} + 1;
}

void Free(void *memory)
{
    Block *const block = BlockOf(memory);
    if (block->Owner == nullptr)
        std::free(block);
    else if (block->Owner == use.Own)
        use.Own->Return(block);
    else
        block->Owner->ReturnLate();
}

int SizeOf(void *memory)
{
    return memory == nullptr ? 0 : static_cast<int>(BlockOf(memory)->Size);
}

void *Reallocate(void *memory, int bytes)
{
    const std::size_t size = BlockOf(memory)->Size;
    if (static_cast<std::size_t>(bytes) <= size)
        return memory;
    void *const larger = Allocate(bytes);
    if (larger == nullptr)
        return nullptr;
    std::memcpy(larger, memory, size);
    Free(memory);
    return larger;
}

} // namespace

void ConnectionMemory::Install()
{
    const sqlite3_mem_methods methods = {
        Allocate,
        Free,
        Reallocate,
        SizeOf,
        [](int size) { return static_cast<int>(RoundUp(static_cast<std::size_t>(size))); },
        [](void *) { return SQLITE_OK; },
        [](void *) {},
        nullptr};
    sqlite3_config(SQLITE_CONFIG_MALLOC, &methods);
}

ConnectionMemory::ConnectionMemory()
{
    ++use.Connections;
}

ConnectionMemory::~ConnectionMemory()
{
    if (--use.Connections > 0 || use.Own == nullptr)
        return;
    use.Own->Leave();
    use.Own = nullptr;
}

} // namespace nimbra
