#pragma once

#include "base/FixedText.h"
#include "data/Paging.h"

#include <cstdint>
#include <tuple>

namespace nimbra {

/// One card holder.
struct UserInfo
{
    std::int32_t UserNo = 0;
    FixedText<32> FirstName;
    FixedText<32> MiddleName;
    FixedText<32> LastName;
    FixedText<32> PhoneNumber;
    FixedText<32> CellPhone;
    FixedText<32> Email;
    std::int32_t Ada = 0;
    std::int32_t Exempt = 0;
    std::int32_t ThreatLevel = 0;

    /// All fields, in their order.
    static auto Fields(auto &record)
    {
        return std::tie(record.UserNo, record.FirstName, record.MiddleName, record.LastName,
                        record.PhoneNumber, record.CellPhone, record.Email, record.Ada,
                        record.Exempt, record.ThreatLevel);
    }
};

/// What a client asks of the list of users: the fields of User that are not 0 or empty filter.
struct UserFilter
{
    UserInfo User;
    Paging Page;
};

/// The image of a user: a file in the panel's image directory.
struct UserImage
{
    std::int32_t UserNo = 0;
    FixedText<1024> FileName;
};

} // namespace nimbra
