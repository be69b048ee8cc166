#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace nimbra {

/// The protected areas of the panel, in the order of a session's authority words.
enum AuthorityArea : std::size_t
{
    AuthUsers,
    AuthCardFormats,
    AuthCards,
    AuthAccessLevels,
    AuthDoors,
    AuthDoorLock,
    AuthAuxOutput,
    AuthThreatInfo,
    AuthThreatLevel,
};

/// Bits of an authority word.
inline constexpr std::uint32_t kView = 1;
inline constexpr std::uint32_t kAdd = 2;
inline constexpr std::uint32_t kChange = 4;
inline constexpr std::uint32_t kEverything = 15;

/// What a client needs for a command: a login, and one bit of one area unless `Bit` is 0.
struct Right
{
    AuthorityArea Area;
    std::uint32_t Bit;
    bool NeedsLogin = true;
};

/// The two rights that name no area.
inline constexpr Right kAnyone = {AuthUsers, 0, false};
inline constexpr Right kAnyLogin = {AuthUsers, 0};

/// What a session may do: one word of bits for each protected area. A plain value.
struct AuthorityRecord
{
    std::array<std::uint32_t, 9> Words = {};

    /// Whether the bit that `right` names, if any, is set.
    [[nodiscard]] bool Allows(const Right &right) const
    {
        return right.Bit == 0 || (Words[right.Area] & right.Bit) != 0;
    }

    /// Grants everything in every area: the controller account.
    void GrantAll() { Words.fill(kEverything); }

    /// Adds what one row of the panel's role table grants; a pair that means nothing adds nothing.
    void GrantRoleRight(std::int32_t formIndex, std::int32_t authority);
};

} // namespace nimbra
