#include "data/Authority.h"

namespace nimbra {

namespace {

struct RoleRight
{
    std::int32_t FormIndex;
    std::int32_t Authority;
    AuthorityArea Area;
    std::uint32_t Bits;
};

/// Authority 0 grants the view of a form, not nothing.
constexpr RoleRight kRoleRights[] = {
    {3, 0, AuthUsers, kView},
    {3, 1, AuthUsers, kAdd},
    {3, 2, AuthUsers, kChange},
    {4, 0, AuthCards, kView},
    {4, 1, AuthCards, kAdd},
    {4, 2, AuthCards, kChange},
    {5, 0, AuthCardFormats, kView},
    {5, 1, AuthCardFormats, kAdd},
    {5, 2, AuthCardFormats, kChange},
    {6, 0, AuthAccessLevels, kView},
    {6, 1, AuthAccessLevels, kAdd},
    {6, 2, AuthAccessLevels, kChange},
    {10, 0, AuthThreatLevel, kView},
    {10, 3, AuthThreatLevel, kChange},
    {41, 0, AuthDoors, kView},
    {41, 3, AuthDoors, kChange},
    {11, 0, AuthThreatInfo, kView},
    {11, 2, AuthThreatInfo, kChange},
    {1, 24, AuthDoorLock, kEverything},
    {1, 25, AuthAuxOutput, kEverything},
};

} // namespace

void AuthorityRecord::GrantRoleRight(std::int32_t formIndex, std::int32_t authority)
{
    for (const RoleRight &right : kRoleRights)
        if (right.FormIndex == formIndex && right.Authority == authority)
            Words[right.Area] |= right.Bits;
}

} // namespace nimbra
