#pragma once

#include "base/FixedText.h"

#include <cstdint>

namespace nimbra {

/// One threat level that the panel defines.
struct ThreatInfo
{
    std::int32_t Level = 0;
    FixedText<32> Desc;
};

} // namespace nimbra
