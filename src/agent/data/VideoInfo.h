#pragma once

#include "base/FixedText.h"

#include <cstdint>

namespace nimbra {

/// Where to fetch the video of a door (live) or of an event (playback).
struct VideoInfo
{
    std::int32_t DoorNo = 0;    ///< asked for: live
    std::int32_t VideoTag = 0;  ///< asked for: playback
    std::int32_t EventTime = 0; ///< asked for: playback, seconds since 1970
    FixedText<32> Name;
    std::int32_t Type = 0;
    FixedText<32> Address;
    std::int32_t Port = 0;
    FixedText<32> Username;
    FixedText<68> Password;
    std::int32_t Channel = 0;
    FixedText<64> CameraID;
    FixedText<256> Url;
};

} // namespace nimbra
