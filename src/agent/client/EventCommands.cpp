#include "client/ClientWorker.h"
#include "data/DataManager.h"
#include "protocol/DateTime.h"

namespace nimbra {

void ClientWorker::SetEvent(char *line)
{
    // Only records the client's wish: events are never sent unasked.
    std::int32_t enable = wantsEvents_ ? 1 : 0;
    ParseKeys(line, {{"Enable", enable}});
    wantsEvents_ = enable != 0;
    Succeed();
}

void ClientWorker::GetEventLog(char *line)
{
    EventInfo event;
    ParseKeys(line, {{"EventNo", event.EventNo}});
    if (!DataManager::GetInstance()->GetEventLog(&event))
        return Fail();
    RespondRecord("GetEventLogResponse?Result=0&", event);
}

void ClientWorker::GetEventLogEx(char *line)
{
    EventFilter filter;
    ParseKeys(line, {{"EventNo", filter.EventNo},
                     {"FromTime", AsTime(filter.FromTime)},
                     {"ToTime", AsTime(filter.ToTime)},
                     {"DeviceType", filter.DeviceType},
                     {"DevicePort", filter.DevicePort},
                     {"DeviceName", filter.DeviceName},
                     {"EventCode", filter.EventCode},
                     {"EventDesc", filter.EventDesc},
                     {"CardNo", filter.CardNo},
                     {"UserNo", filter.UserNo},
                     {"UserName", filter.UserName},
                     {"VideoTag", filter.VideoTag},
                     {"Offset", filter.Page.Offset},
                     {"Limit", filter.Page.Limit}});
    RowList<EventInfo> rows;
    if (!DataManager::GetInstance()->GetEventLogEx(&filter, &rows))
        return Fail();
    RespondList(filter.Page, &rows);
}

void ClientWorker::RespondRecord(const char *lead, const EventInfo &event)
{
    Respond("%sEventNo=%d&EventTime=%s&DeviceType=%d&DevicePort=%d&DeviceName=%s&EventCode=%d"
            "&EventDesc=%s&CardNo=%d&UserNo=%d&UserName=%s&VideoTag=%d\n",
            lead, event.EventNo, TimeToString(event.Date).Get(), event.DeviceType, event.DevicePort,
            event.DeviceName.Get(), event.EventCode, event.EventDesc.Get(), event.CardNo,
            event.UserNo, event.UserName.Get(), event.VideoTag);
}

} // namespace nimbra
