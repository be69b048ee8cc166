#pragma once

#include "base/FixedText.h"
#include "data/Paging.h"

#include <cstdint>
#include <tuple>

namespace nimbra {

/// One event of the panel's log.
struct EventInfo
{
    std::int32_t EventNo = 0;
    std::int32_t Date = 0; ///< seconds since 1970
    std::int32_t DeviceType = 0;
    std::int32_t DevicePort = 0;
    FixedText<32> DeviceName;
    std::int32_t EventCode = 0;
    FixedText<64> EventDesc;
    std::int32_t CardNo = 0;
    std::int32_t UserNo = 0;
    FixedText<32> UserName;
    std::int32_t VideoTag = 0;

    /// All fields, in their order.
    static auto Fields(auto &record)
    {
        return std::tie(record.EventNo, record.Date, record.DeviceType, record.DevicePort,
                        record.DeviceName, record.EventCode, record.EventDesc, record.CardNo,
                        record.UserNo, record.UserName, record.VideoTag);
    }
};

/// What a client asks of the event log; 0 or empty filters nothing.
struct EventFilter
{
    std::int32_t EventNo = 0;
    std::int32_t FromTime = 0; ///< seconds since 1970
    std::int32_t ToTime = 0;   ///< seconds since 1970
    std::int32_t DeviceType = 0;
    std::int32_t DevicePort = 0;
    FixedText<32> DeviceName;
    std::int32_t EventCode = 0;
    FixedText<64> EventDesc;
    std::int32_t CardNo = 0;
    std::int32_t UserNo = 0;
    FixedText<32> UserName;
    std::int32_t VideoTag = 0;
    Paging Page;
};

} // namespace nimbra
