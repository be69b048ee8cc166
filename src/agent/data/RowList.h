#pragma once

#include "base/FixedText.h"
#include "data/RowBytes.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <tuple>

namespace nimbra {

/// The rows of a list, in their order: a method of DataManager appends them, and the handler takes
/// each off the front as it sends it. A row is kept as its numbers and the used part of its texts.
/// A Record names its fields by a function `Fields`. One thread.
template <class Record>
class RowList
{
public:
    /// Adds a row. False, and nothing added, when the lists of all sessions take all the memory
    /// that they may take together.
    [[nodiscard]] bool Append(const Record &row)
    {
        static_assert(sizeof(Record) <= RowBytes::kLongestRow);
        char packed[sizeof(Record)];
        char *end = packed;
        std::apply([&end](const auto &...fields) { ((end = Pack(fields, end)), ...); },
                   Record::Fields(row));
        if (!bytes_.Append({packed, static_cast<std::size_t>(end - packed)}))
            return false;
        ++count_;
        return true;
    }

    /// Takes the first row off; false when there is none.
    [[nodiscard]] bool TakeFront(Record *row)
    {
        if (count_ == 0)
            return false;
        const char *const begin = bytes_.Front();
        const char *end = begin;
        std::apply([&end](auto &...fields) { ((end = Unpack(end, &fields)), ...); },
                   Record::Fields(*row));
        bytes_.DropFront(static_cast<std::size_t>(end - begin));
        --count_;
        return true;
    }

    [[nodiscard]] std::int32_t Count() const { return count_; }

private:
    // Each gives the position behind the field.

    static char *Pack(std::int32_t number, char *place) noexcept
    {
        std::memcpy(place, &number, sizeof number);
        return place + sizeof number;
    }
    template <std::size_t N>
    static char *Pack(const FixedText<N> &text, char *place) noexcept
    {
        const std::size_t size = text.View().size() + 1;
        std::memcpy(place, text.Get(), size);
        return place + size;
    }
    static const char *Unpack(const char *place, std::int32_t *number) noexcept
    {
        std::memcpy(number, place, sizeof *number);
        return place + sizeof *number;
    }
    template <std::size_t N>
    static const char *Unpack(const char *place, FixedText<N> *text) noexcept
    {
        const std::string_view bytes = place;
        text->Assign(bytes);
        return place + bytes.size() + 1;
    }

    RowBytes bytes_;
    std::int32_t count_ = 0;
};

} // namespace nimbra
