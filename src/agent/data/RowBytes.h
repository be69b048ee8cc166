#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <string_view>

namespace nimbra {

/// The packed rows of one list, taken off in the order in which they were added. All lists of the
/// process together take at most kLimit bytes, so that clients that ask for much and read nothing
/// cannot take the panel's memory. One thread; the limit is shared by all threads.
class RowBytes
{
public:
    /// What all lists together may take.
    static constexpr std::size_t kLimit = std::size_t{NIMBRA_ROWS_MIB} * 1024 * 1024;
    /// The longest row.
    static constexpr std::size_t kLongestRow = 1024;

    RowBytes() = default;
    ~RowBytes();
    RowBytes(const RowBytes &) = delete;
    RowBytes &operator=(const RowBytes &) = delete;

    /// Adds a row of at most kLongestRow bytes. False, and nothing added, at the limit.
    [[nodiscard]] bool Append(std::string_view row);
    /// The bytes from the first row on, as far as they are in one piece: at least that row. Valid
    /// until DropFront. There is a row.
    [[nodiscard]] const char *Front() const noexcept;
    /// Takes the first `size` bytes off, which are one row, and gives back memory that is no longer
    /// needed.
    void DropFront(std::size_t size) noexcept;

    /// What all lists take at the moment.
    [[nodiscard]] static std::size_t Held();

private:
    struct Block
    {
        std::unique_ptr<char[]> Bytes;
        std::size_t Size;
        std::size_t End = 0; ///< behind the last row
    };

    [[nodiscard]] bool AddBlock();
    void DropBlock() noexcept;

    std::list<Block> blocks_;
    /// Where the first row begins in the first block.
    std::size_t begin_ = 0;
};

} // namespace nimbra
