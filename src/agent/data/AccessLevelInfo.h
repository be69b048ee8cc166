#pragma once

#include "base/FixedText.h"

#include <cstddef>
#include <cstdint>
#include <tuple>

namespace nimbra {

/// The two kinds of access level, as the panel numbers them.
inline constexpr std::int32_t kPlainLevels = 1;
inline constexpr std::int32_t kLevelGroups = 2;

/// One access level (SelectType 1) or access-level group (SelectType 2).
struct AccessLevelInfo
{
    std::int32_t SelectType = 0;
    std::int32_t LevelNo = 0;
    FixedText<64> Name;

    /// All fields, in their order.
    static auto Fields(auto &record)
    {
        return std::tie(record.SelectType, record.LevelNo, record.Name);
    }
};

/// Bound of a card's list of access levels, in bytes.
inline constexpr std::size_t kLevelListSize = 1024;

/// The access levels of one card: their numbers, separated by single blanks.
struct CardAccessLevel
{
    std::int32_t CardNo = 0;
    std::int32_t SelectType = 0;
    FixedText<kLevelListSize> AccessLevelNo;
};

} // namespace nimbra
