#pragma once

#include "base/FixedText.h"
#include "data/Paging.h"

#include <cstdint>
#include <tuple>

namespace nimbra {

/// One card. The protocol's names cross over the panel's: its CardNo is the record number
/// (Card.No), its CardNumber what is encoded in the card (Card.CardNo); clients rely on it.
struct CardInfo
{
    std::int32_t No = 0;
    std::int32_t UserNo = 0;
    std::int32_t FormatNo = 0;
    FixedText<32> FormatName;
    FixedText<32> CardNumber;
    std::int32_t KeyNumber = 0;
    std::int32_t CardStatus = 0;
    std::int32_t CardType = 0;
    std::int32_t NeverExpire = 0;
    std::int32_t ActDate = 0; ///< seconds since 1970
    std::int32_t ExpDate = 0; ///< seconds since 1970

    /// All fields, in their order.
    static auto Fields(auto &record)
    {
        return std::tie(record.No, record.UserNo, record.FormatNo, record.FormatName,
                        record.CardNumber, record.KeyNumber, record.CardStatus, record.CardType,
                        record.NeverExpire, record.ActDate, record.ExpDate);
    }
};

/// What a client asks of the list of cards; UserNo 0 means all users.
struct CardFilter
{
    std::int32_t UserNo = 0;
    Paging Page;
};

/// One way of encoding a number in a card.
struct CardFormatInfo
{
    std::int32_t FormatNo = 0;
    FixedText<64> Name;
    std::int32_t Default = 0;

    /// All fields, in their order.
    static auto Fields(auto &record)
    {
        return std::tie(record.FormatNo, record.Name, record.Default);
    }
};

} // namespace nimbra
