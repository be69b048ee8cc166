#include "fuzz/SqliteMemory.h"

#include "fuzz/Finding.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <sanitizer/asan_interface.h>

namespace nimbra::fuzz {

namespace {

constexpr std::size_t kStep = 16;
/// Larger blocks come from the C library.
constexpr std::size_t kLargest = 8192;

/// Memory from which blocks are cut. Chunks are never freed.
struct Chunk
{
    Chunk *Previous;
    alignas(kStep) std::array<char, std::size_t{256} * 1024> Bytes;
};

/// Precedes each block. Poisoned like all that lies between two blocks, so that an access beyond
/// the end of a block or before its begin is found. Only these functions may use it.
class alignas(kStep) Block
{
public:
    /// Hands it out for so many bytes.
    [[gnu::no_sanitize_address]] void Take(std::size_t size)
    {
        size_ = static_cast<std::uint32_t>(size);
        isFree_ = false;
    }
    /// Takes it back; false if it is free.
    [[nodiscard, gnu::no_sanitize_address]] bool Release()
    {
        const bool wasFree = isFree_;
        isFree_ = true;
        return !wasFree;
    }
    [[nodiscard, gnu::no_sanitize_address]] std::size_t Size() const { return size_; }
    [[gnu::no_sanitize_address]] void SetNext(Block *block) { next_ = block; }
    [[nodiscard, gnu::no_sanitize_address]] Block *Next() const { return next_; }

    void *Memory() { return this + 1; }

private:
    std::uint32_t size_; ///< as asked for
    bool isFree_;
    Block *next_; ///< of the freed blocks
};

std::size_t RoundUp(std::size_t size)
{
    return (size + kStep - 1) / kStep * kStep;
}

/// Freed blocks of one size, the oldest first.
class FreeBlocks
{
public:
    void Add(Block *block)
    {
        block->SetNext(nullptr);
        if (last_ == nullptr)
            first_ = block;
        else
            last_->SetNext(block);
        last_ = block;
        ++count_;
    }

    /// Null while there are so few that the oldest one has just been freed.
    Block *Take()
    {
        constexpr std::size_t kFewest = 16;
        if (count_ <= kFewest)
            return nullptr;
        Block *const block = first_;
        first_ = block->Next();
        --count_;
        return block;
    }

private:
    Block *first_ = nullptr;
    Block *last_ = nullptr;
    std::size_t count_ = 0;
};

std::array<FreeBlocks, kLargest / kStep + 1> freed;
Chunk *chunk = nullptr;
std::size_t used = 0; ///< of the last chunk

Block *BlockOf(void *memory)
{
    return static_cast<Block *>(memory) - 1;
}

/// A block for so many steps of memory.
Block *NewBlock(std::size_t steps)
{
    const std::size_t size = sizeof(Block) + steps * kStep;
    if (chunk == nullptr || chunk->Bytes.size() - used < size) {
        auto *const next = new Chunk;
        ASAN_POISON_MEMORY_REGION(next->Bytes.data(), next->Bytes.size());
        next->Previous = chunk;
        chunk = next;
        used = 0;
    }
    void *const place = chunk->Bytes.data() + used;
    used += size;
    return static_cast<Block *>(place);
}

void *Allocate(int bytes)
{
    const auto size = static_cast<std::size_t>(bytes);
    Block *block = nullptr;
    if (size > kLargest) {
        block = static_cast<Block *>(std::malloc(sizeof(Block) + size));
        if (block == nullptr)
            return nullptr;
    } else {
        const std::size_t steps = RoundUp(size) / kStep;
        block = freed.at(steps).Take();
        if (block == nullptr)
            block = NewBlock(steps);
        ASAN_UNPOISON_MEMORY_REGION(block->Memory(), size);
    }
    block->Take(size);
    return block->Memory();
}

void Free(void *memory)
{
    Block *const block = BlockOf(memory);
    if (block->Size() > kLargest) {
        std::free(block);
        return;
    }
    Require(block->Release(), "memory of SQLite is freed twice");
    const std::size_t size = RoundUp(block->Size());
    ASAN_POISON_MEMORY_REGION(memory, size);
    freed.at(size / kStep).Add(block);
}

int SizeOf(void *memory)
{
    return memory == nullptr ? 0 : static_cast<int>(BlockOf(memory)->Size());
}

/// Always moves the block: a pointer to the old one, or an access beyond a smaller one, is found.
void *Reallocate(void *memory, int bytes)
{
    void *const moved = Allocate(bytes);
    if (moved == nullptr)
        return nullptr;
    std::memcpy(moved, memory, std::min(BlockOf(memory)->Size(), static_cast<std::size_t>(bytes)));
    Free(memory);
    return moved;
}

} // namespace

void InstallSqliteMemory()
{
    const sqlite3_mem_methods methods = {Allocate,
                                         Free,
                                         Reallocate,
                                         SizeOf,
                                         [](int size) { return (size + 7) / 8 * 8; },
                                         [](void *) { return SQLITE_OK; },
                                         [](void *) {},
                                         nullptr};
    Require(sqlite3_config(SQLITE_CONFIG_MALLOC, &methods) == SQLITE_OK, "SQLite's memory");
}

} // namespace nimbra::fuzz
