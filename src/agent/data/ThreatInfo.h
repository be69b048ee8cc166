#pragma once

#include "base/FixedText.h"

#include <cstdint>
#include <tuple>

namespace nimbra {

/// One threat level that the panel defines.
struct ThreatInfo
{
    std::int32_t Level = 0;
    FixedText<32> Desc;

    /// All fields, in their order.
    static auto Fields(auto &record) { return std::tie(record.Level, record.Desc); }
};

} // namespace nimbra
