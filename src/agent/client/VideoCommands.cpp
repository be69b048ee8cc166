#include "client/ClientWorker.h"
#include "data/DataManager.h"

namespace nimbra {

void ClientWorker::GetLiveVideoInfo(char *line)
{
    VideoInfo video;
    ParseKeys(line, {{"DoorNo", &video.DoorNo}});
    if (!DataManager::GetInstance()->GetLiveVideoInfo(&video))
        return Fail();
    RespondRecord(video);
}

void ClientWorker::GetPlayVideoInfo(char *line)
{
    VideoInfo video;
    ParseKeys(line, {{"VideoTag", &video.VideoTag}, {"EventTime", AsTime(&video.EventTime)}});
    if (!DataManager::GetInstance()->GetPlayVideoInfo(&video))
        return Fail();
    RespondRecord(video);
}

} // namespace nimbra
