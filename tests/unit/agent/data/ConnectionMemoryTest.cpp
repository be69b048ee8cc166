#include "data/ConnectionMemory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include <malloc.h>

// Of the runtime of a sanitizer, which has an allocator of its own; null without one.
// NOLINTNEXTLINE(*-reserved-identifier,cert-dcl*,readability-identifier-naming): its name there
extern "C" [[gnu::weak]] std::size_t __sanitizer_get_current_allocated_bytes();

namespace nimbra {
namespace {

using ::testing::Each;

/// The bytes of all allocations of the process.
std::size_t AllocatedBytes()
{
    if (__sanitizer_get_current_allocated_bytes != nullptr)
        return __sanitizer_get_current_allocated_bytes();
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

class ConnectionMemoryTest : public ::testing::Test
{
protected:
    ConnectionMemoryTest()
    {
        sqlite3_shutdown();
        ConnectionMemory::Install();
        sqlite3_initialize();
    }
    ~ConnectionMemoryTest() override { sqlite3_shutdown(); }
};

/// An allocation whose bytes all have one value.
struct Piece
{
    Piece(int size, char value)
        : Bytes(static_cast<char *>(sqlite3_malloc(size))), Size(size), Value(value)
    {
        std::memset(Bytes, value, static_cast<std::size_t>(size));
    }
    [[nodiscard]] bool IsWhole() const
    {
        return std::all_of(Bytes, Bytes + Size, [this](char byte) { return byte == Value; });
    }

    char *Bytes;
    int Size;
    char Value;
};

TEST_F(ConnectionMemoryTest, BlocksOfAllSizesAreAlignedAndApart)
{
    const ConnectionMemory connection;
    std::vector<Piece> pieces;
    for (int size = 1; size < 6000; size += 7)
        pieces.emplace_back(size, static_cast<char>(size));
    for (const Piece &piece : pieces) {
        EXPECT_TRUE(piece.IsWhole()) << piece.Size;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(piece.Bytes) % 8, 0U) << piece.Size;
        EXPECT_GE(sqlite3_msize(piece.Bytes), static_cast<std::uint64_t>(piece.Size));
        sqlite3_free(piece.Bytes);
    }
}

TEST_F(ConnectionMemoryTest, ReallocationKeepsBytes)
{
    const ConnectionMemory connection;
    char *bytes = nullptr;
    for (int size = 1; size < 20000; size = 2 * size + 1) {
        bytes = static_cast<char *>(sqlite3_realloc(bytes, size));
        ASSERT_NE(bytes, nullptr);
        const Piece old{size, 'x'};
        std::memset(bytes + size / 2, 'x', static_cast<std::size_t>(size - size / 2));
        EXPECT_EQ(std::memcmp(bytes, old.Bytes, static_cast<std::size_t>(size)), 0) << size;
        sqlite3_free(old.Bytes);
    }
    bytes = static_cast<char *>(sqlite3_realloc(bytes, 5));
    EXPECT_EQ(std::string_view(bytes, 5), "xxxxx");
    sqlite3_free(bytes);
}

TEST_F(ConnectionMemoryTest, FreedBlockServesNextAllocationOfItsSize)
{
    const ConnectionMemory connection;
    void *const first = sqlite3_malloc(100);
    sqlite3_free(first);
    void *const second = sqlite3_malloc(101);
    EXPECT_EQ(second, first);
    sqlite3_free(second);
}

TEST_F(ConnectionMemoryTest, ClosedConnectionLeavesItsMemoryToTheNextOne)
{
    const auto firstBlock = [] {
        const ConnectionMemory connection;
        void *const block = sqlite3_malloc(100);
        sqlite3_free(block);
        return block;
    };
    void *const own = firstBlock();
    void *others = nullptr;
    std::thread([&] { others = firstBlock(); }).join();
    EXPECT_EQ(others, own);
}

TEST_F(ConnectionMemoryTest, ClosedConnectionKeepsLittleMemory)
{
    const auto growth = [] {
        const std::size_t before = AllocatedBytes();
        const ConnectionMemory connection;
        std::vector<Piece> pieces;
        for (int i = 0; i < 3000; ++i)
            pieces.emplace_back(1000, 'p');
        const std::size_t grown = AllocatedBytes() - before;
        for (const Piece &piece : pieces)
            sqlite3_free(piece.Bytes);
        return grown;
    };
    EXPECT_GT(growth(), 3000000U);
    // What the first one has kept serves this one.
    EXPECT_GT(growth(), 3000000U - 256 * 1024);
}

TEST_F(ConnectionMemoryTest, ClosedConnectionsOfManyThreadsKeepTwoChunks)
{
    constexpr int kThreads = 8;
    const std::size_t before = AllocatedBytes();
    std::atomic<int> open = 0;
    std::vector<std::thread> threads;
    for (int number = 0; number < kThreads; ++number)
        threads.emplace_back([&open] {
            const ConnectionMemory connection;
            const Piece piece(1000, 'p');
            // All connections are open at the same time.
            for (++open; open < kThreads;)
                std::this_thread::yield();
            sqlite3_free(piece.Bytes);
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_LT(AllocatedBytes(), before + std::size_t{3} * 128 * 1024);
}

TEST_F(ConnectionMemoryTest, LastOpenConnectionOfAThreadKeepsTheMemory)
{
    const ConnectionMemory outer;
    std::optional<Piece> piece;
    {
        const ConnectionMemory inner;
        piece.emplace(200, 'p');
    }
    const Piece other(200, 'o');
    EXPECT_TRUE(piece->IsWhole());
    sqlite3_free(piece->Bytes);
    sqlite3_free(other.Bytes);
}

TEST_F(ConnectionMemoryTest, MemoryIsNotReusedWhileABlockOutlivesItsConnection)
{
    std::optional<Piece> piece;
    {
        const ConnectionMemory connection;
        piece.emplace(300, 'p');
    }
    {
        const ConnectionMemory connection;
        const Piece other(300, 'o');
        EXPECT_TRUE(piece->IsWhole());
        sqlite3_free(other.Bytes);
    }
    sqlite3_free(piece->Bytes);
    const ConnectionMemory connection;
    void *const block = sqlite3_malloc(300);
    EXPECT_EQ(block, piece->Bytes);
    sqlite3_free(block);
}

TEST_F(ConnectionMemoryTest, BlockCanBeFreedByAnotherThread)
{
    for (const bool isConnectionOpen : {true, false}) {
        std::optional<ConnectionMemory> connection(std::in_place);
        const Piece piece(400, 'p');
        if (!isConnectionOpen)
            connection.reset();
        std::thread([&] {
            EXPECT_TRUE(piece.IsWhole());
            sqlite3_free(piece.Bytes);
        }).join();
        const ConnectionMemory next;
        const Piece other(400, 'o');
        EXPECT_TRUE(other.IsWhole());
        sqlite3_free(other.Bytes);
    }
}

TEST_F(ConnectionMemoryTest, AllocatesWithoutConnection)
{
    const Piece piece(500, 'p');
    {
        const ConnectionMemory connection;
        EXPECT_TRUE(piece.IsWhole());
        sqlite3_free(piece.Bytes);
    }
    char *const none = static_cast<char *>(sqlite3_realloc(nullptr, 10));
    ASSERT_NE(none, nullptr);
    sqlite3_free(none);
}

TEST_F(ConnectionMemoryTest, ThreadsExchangeBlocks)
{
    constexpr int kThreads = 4;
    std::array<std::atomic<Piece *>, 32> shelf = {};
    std::array<bool, kThreads> isWhole = {};
    std::vector<std::thread> threads;
    for (int number = 0; number < kThreads; ++number)
        threads.emplace_back([&, number] {
            std::minstd_rand random(static_cast<unsigned>(number) + 1);
            bool all = true;
            for (int connection = 0; connection < 200; ++connection) {
                const ConnectionMemory memory;
                for (int i = 0; i < 50; ++i) {
                    auto *const piece = new Piece(static_cast<int>(1 + random() % 5000),
                                                  static_cast<char>(random()));
                    const Piece *const old = shelf[random() % shelf.size()].exchange(piece);
                    if (old == nullptr)
                        continue;
                    all = all && old->IsWhole();
                    sqlite3_free(old->Bytes);
                    delete old;
                }
            }
            isWhole[static_cast<std::size_t>(number)] = all;
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_THAT(isWhole, Each(true));
    for (const auto &place : shelf) {
        const Piece *const piece = place.load();
        ASSERT_NE(piece, nullptr);
        EXPECT_TRUE(piece->IsWhole());
        sqlite3_free(piece->Bytes);
        delete piece;
    }
}

} // namespace
} // namespace nimbra
