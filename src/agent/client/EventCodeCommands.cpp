#include "client/ClientWorker.h"
#include "data/DataManager.h"

namespace nimbra {

void ClientWorker::GetEventCode(char *line)
{
    EventCodeInfo code;
    ParseKeys(line, {{"Code", &code.Code}});
    if (!DataManager::GetInstance()->GetEventCode(&code))
        return Fail();
    RespondRecord(code);
}

void ClientWorker::GetEventCodeEx(char *line)
{
    EventCodeFilter filter;
    ParseKeys(line, {{"Code", &filter.Code},
                     {"Desc", &filter.Desc},
                     {"Offset", &filter.Page.Offset},
                     {"Limit", &filter.Page.Limit}});
    RowList<EventCodeInfo> rows;
    if (!DataManager::GetInstance()->GetEventCodeEx(&filter, &rows))
        return Fail();
    RespondList(filter.Page, &rows);
}

} // namespace nimbra
