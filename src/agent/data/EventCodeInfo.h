#pragma once

#include "base/FixedText.h"
#include "data/Paging.h"

#include <cstdint>
#include <tuple>

namespace nimbra {

/// One entry of the panel's dictionary of event codes.
struct EventCodeInfo
{
    std::int32_t Code = 0;
    FixedText<64> Desc;

    /// All fields, in their order.
    static auto Fields(auto &record) { return std::tie(record.Code, record.Desc); }
};

/// What a client asks of the dictionary; 0 or empty filters nothing.
struct EventCodeFilter
{
    std::int32_t Code = 0;
    FixedText<64> Desc;
    Paging Page;
};

} // namespace nimbra
