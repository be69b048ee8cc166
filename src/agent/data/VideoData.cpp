#include "base/PanelConstants.h"
#include "data/DataManager.h"
#include "data/Database.h"
#include "data/SqlText.h"
#include "protocol/DateTime.h"

namespace nimbra {

namespace {

/// Recorder types whose addresses have a form of their own.
constexpr std::int32_t kMainStreamA = 2;
constexpr std::int32_t kLivePaths = 3;
constexpr std::int32_t kCameraNamed = 4;
constexpr std::int32_t kMainStreamB = 5;

/// Length of a type 3 playback. Not the half minute that the other recorders are asked for, though
/// it looks like that in milliseconds; clients rely on it.
constexpr std::uint32_t kPlaybackSeconds = 30000;

/// Fills `video` from the first channel that `condition` finds.
bool ReadChannel(Database &panel, const SqlText &condition, VideoInfo *video)
{
    Statement row(
        panel, SqlText("SELECT IFNULL(A.Name, ''), IFNULL(A.Type, 0), IFNULL(A.IP, ''), "
                       "IFNULL(A.LivePort, 0), IFNULL(A.HttpID, ''), IFNULL(A.HttpPassword, ''), "
                       "IFNULL(B.Channel, 0), IFNULL(B.CameraID, '') FROM DVR AS A JOIN "
                       "DVRChannel AS B ON A.No=B.DvrNo ")
                   .Append(condition));
    if (!row.Step())
        return false;
    row.Read(&video->Name, &video->Type, &video->Address, &video->Port, &video->Username,
             &video->Password, &video->Channel, &video->CameraID);
    return true;
}

/// What every address begins with.
FixedText<256> UrlBase(const VideoInfo &video)
{
    FixedText<256> base;
    base.Format("rtsp://%s:%s@%s:%d/", video.Username.Get(), video.Password.Get(),
                video.Address.Get(), video.Port);
    return base;
}

void MakeLiveUrl(VideoInfo *video)
{
    const FixedText<256> base = UrlBase(*video);
    switch (video->Type) {
    case kMainStreamA:
    case kMainStreamB:
        video->Url.Format("%schID=%d&streamType=main", base.Get(), video->Channel);
        break;
    case kLivePaths:
        // These recorders count live channels from 0, but recorded ones from 1.
        video->Url.Format("%slive/main%d", base.Get(),
                          static_cast<int>(static_cast<std::uint32_t>(video->Channel) - 1));
        break;
    case kCameraNamed:
        video->Url.Format("%s%s?stream=0", base.Get(), video->CameraID.Get());
        break;
    default:
        video->Url.Format("%schID=%d", base.Get(), video->Channel);
    }
}

void MakePlayUrl(VideoInfo *video)
{
    const FixedText<256> base = UrlBase(*video);
    const TimeText time = TimeToString(video->EventTime);
    const char *const clock = time.Get() + sizeof "2026-11-21";
    const TimeText date = DateToString(video->EventTime);
    switch (video->Type) {
    case kMainStreamA:
    case kMainStreamB:
        video->Url.Format("%schID=%d&date=%s&time=%s&timelen=30&streamType=main", base.Get(),
                          video->Channel, date.Get(), clock);
        break;
    case kLivePaths:
        video->Url.Format(
            "%splayback%d?Pb_start_time=%d&Pb_end_time=%d&Pb_direction=Forward&Pb_speed=1",
            base.Get(), video->Channel, video->EventTime,
            static_cast<int>(static_cast<std::uint32_t>(video->EventTime) + kPlaybackSeconds));
        break;
    case kCameraNamed:
        video->Url.Format("%s%s?stream=0&pos=%sT%s", base.Get(), video->CameraID.Get(), date.Get(),
                          clock);
        break;
    default:
        video->Url.Format("%schID=%d&date=%s&time=%s", base.Get(), video->Channel, date.Get(),
                          clock);
    }
}

} // namespace

bool DataManager::GetLiveVideoInfo(VideoInfo *video)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen() || !ReadChannel(panel, SqlText("WHERE B.DoorNo=%d", video->DoorNo), video))
        return false;
    MakeLiveUrl(video);
    return true;
}

bool DataManager::GetPlayVideoInfo(VideoInfo *video)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen() || !ReadChannel(panel, SqlText("WHERE B.No=%d", video->VideoTag), video))
        return false;
    MakePlayUrl(video);
    return true;
}

} // namespace nimbra
