#pragma once

#include "base/FixedText.h"
#include "data/Paging.h"

#include <cstdint>
#include <tuple>

namespace nimbra {

/// One door; Status is its lock state, 0 or 1.
struct DoorInfo
{
    std::int32_t DoorNo = 0;
    FixedText<32> Name;
    std::int32_t Status = 0;

    /// All fields, in their order.
    static auto Fields(auto &record) { return std::tie(record.DoorNo, record.Name, record.Status); }
};

/// What a client asks of the list of doors; 0 or empty filters nothing.
struct DoorFilter
{
    std::int32_t DoorNo = 0;
    FixedText<32> Name;
    Paging Page;
};

} // namespace nimbra
