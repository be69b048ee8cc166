#include "client/ClientWorker.h"
#include "data/DataManager.h"

namespace nimbra {

void ClientWorker::GetThreatInfo(char *line)
{
    ThreatInfo threat;
    ParseKeys(line, {{"Level", &threat.Level}});
    if (!DataManager::GetInstance()->GetThreatInfo(&threat))
        return Fail();
    RespondRecord(threat);
}

void ClientWorker::GetThreatInfoEx(char *line)
{
    Paging page;
    ParseKeys(line, {{"Offset", &page.Offset}, {"Limit", &page.Limit}});
    RowList<ThreatInfo> rows;
    if (!DataManager::GetInstance()->GetThreatInfoEx(&page, &rows))
        return Fail();
    RespondList(page, &rows);
}

void ClientWorker::GetThreatLevel(char * /*line*/)
{
    std::int32_t level = 0;
    if (!DataManager::GetInstance()->GetThreatLevel(&level))
        return Fail();
    Send(Response(Result::Success).Pair("ThreatLevel", level));
}

void ClientWorker::SetThreatLevel(char *line)
{
    std::int32_t level = 0;
    ParseKeys(line, {{"ThreatLevel", &level}});
    if (!DataManager::GetInstance()->SetThreatLevel(level))
        return Fail();
    Audit(AuditEvent::ThreatLevelChanged);
    Succeed();
}

} // namespace nimbra
