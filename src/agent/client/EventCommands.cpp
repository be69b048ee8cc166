#include "client/ClientWorker.h"
#include "data/DataManager.h"

namespace nimbra {

void ClientWorker::SetEvent(char *line)
{
    // Only records what the client requested: events are never sent unasked.
    std::int32_t enable = wantsEvents_ ? 1 : 0;
    ParseKeys(line, {{"Enable", &enable}});
    wantsEvents_ = enable != 0;
    Succeed();
}

void ClientWorker::GetEventLog(char *line)
{
    EventInfo event;
    ParseKeys(line, {{"EventNo", &event.EventNo}});
    if (!DataManager::GetInstance()->GetEventLog(&event))
        return Fail();
    RespondRecord(event);
}

void ClientWorker::GetEventLogEx(char *line)
{
    EventFilter filter;
    ParseKeys(line, {{"EventNo", &filter.EventNo},
                     {"FromTime", AsTime(&filter.FromTime)},
                     {"ToTime", AsTime(&filter.ToTime)},
                     {"DeviceType", &filter.DeviceType},
                     {"DevicePort", &filter.DevicePort},
                     {"DeviceName", &filter.DeviceName},
                     {"EventCode", &filter.EventCode},
                     {"EventDesc", &filter.EventDesc},
                     {"CardNo", &filter.CardNo},
                     {"UserNo", &filter.UserNo},
                     {"UserName", &filter.UserName},
                     {"VideoTag", &filter.VideoTag},
                     {"Offset", &filter.Page.Offset},
                     {"Limit", &filter.Page.Limit}});
    RowList<EventInfo> rows;
    if (!DataManager::GetInstance()->GetEventLogEx(&filter, &rows))
        return Fail();
    RespondList(filter.Page, &rows);
}

} // namespace nimbra
