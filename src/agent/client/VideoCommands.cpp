#include "client/ClientWorker.h"
#include "data/DataManager.h"

namespace nimbra {

void ClientWorker::GetLiveVideoInfo(char *line)
{
    VideoInfo video;
    ParseKeys(line, {{"DoorNo", video.DoorNo}});
    if (!DataManager::GetInstance()->GetLiveVideoInfo(&video))
        return Fail();
    RespondRecord("GetLiveVideoInfoResponse?Result=0&", video);
}

void ClientWorker::GetPlayVideoInfo(char *line)
{
    VideoInfo video;
    ParseKeys(line, {{"VideoTag", video.VideoTag}, {"EventTime", AsTime(video.EventTime)}});
    if (!DataManager::GetInstance()->GetPlayVideoInfo(&video))
        return Fail();
    RespondRecord("GetPlayVideoInfoResponse?Result=0&", video);
}

void ClientWorker::RespondRecord(const char *lead, const VideoInfo &video)
{
    // The address is quoted because it holds "&" and "=" of its own.
    Respond("%sName=%s&Type=%d&Address=%s&Port=%d&Username=%s&Password=%s&Channel=%d"
            "&Url=\"%s\"\n",
            lead, video.Name.Get(), video.Type, video.Address.Get(), video.Port,
            video.Username.Get(), video.Password.Get(), video.Channel, video.Url.Get());
}

} // namespace nimbra
