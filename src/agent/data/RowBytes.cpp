#include "data/RowBytes.h"

#include <algorithm>
#include <atomic>

namespace nimbra {

namespace {

/// A short list takes little; the blocks of a long one are large enough that the allocator returns
/// each to the system as soon as it is freed.
constexpr std::size_t kFirstBlock = std::size_t{4} * 1024;
constexpr std::size_t kLargestBlock = std::size_t{128} * 1024;
static_assert(RowBytes::kLongestRow <= kFirstBlock);

std::atomic<std::size_t> held{0};

/// Takes a part of what all lists may hold; false when there is not so much left.
bool Take(std::size_t size)
{
    std::size_t before = held;
    do {
        if (size > RowBytes::kLimit - before)
            return false;
    } while (!held.compare_exchange_weak(before, before + size));
    return true;
}

} // namespace

RowBytes::~RowBytes()
{
    while (!blocks_.empty())
        DropBlock();
}

bool RowBytes::Append(std::string_view row)
{
    if ((blocks_.empty() || blocks_.back().Size - blocks_.back().End < row.size()) && !AddBlock())
        return false;
    Block &block = blocks_.back();
    row.copy(block.Bytes.get() + block.End, row.size());
    block.End += row.size();
    return true;
}

const char *RowBytes::Front() const noexcept
{
    return blocks_.front().Bytes.get() + begin_;
}

void RowBytes::DropFront(std::size_t size) noexcept
{
    begin_ += size;
    if (begin_ == blocks_.front().End)
        DropBlock();
}

std::size_t RowBytes::Held()
{
    return held;
}

bool RowBytes::AddBlock()
{
    const std::size_t size =
        blocks_.empty() ? kFirstBlock : std::min(2 * blocks_.back().Size, kLargestBlock);
    blocks_.push_back({std::make_unique_for_overwrite<char[]>(size), size});
    if (Take(size))
        return true;
    blocks_.pop_back();
    return false;
}

void RowBytes::DropBlock() noexcept
{
    held -= blocks_.front().Size;
    blocks_.pop_front();
    begin_ = 0;
}

} // namespace nimbra
