#include "client/ClientWorker.h"
#include "data/DataManager.h"

namespace nimbra {

void ClientWorker::GetThreatInfo(char *line)
{
    if (!IsAuthorised(AuthThreatInfo, kView))
        return;
    ThreatInfo threat;
    ParseKeys(line, {{"Level", threat.Level}});
    if (!DataManager::GetInstance()->GetThreatInfo(&threat))
        return Fail();
    RespondRecord("GetThreatInfoResponse?Result=0&", threat);
}

void ClientWorker::GetThreatInfoEx(char *line)
{
    if (!IsAuthorised(AuthThreatInfo, kView))
        return;
    Paging page;
    ParseKeys(line, {{"Offset", page.Offset}, {"Limit", page.Limit}});
    RowList<ThreatInfo> rows;
    if (!DataManager::GetInstance()->GetThreatInfoEx(&page, &rows))
        return Fail();
    RespondList(page, &rows);
}

void ClientWorker::GetThreatLevel(char * /*line*/)
{
    if (!IsAuthorised(AuthThreatLevel, kView))
        return;
    std::int32_t level = 0;
    if (!DataManager::GetInstance()->GetThreatLevel(&level))
        return Fail();
    Respond("GetThreatLevelResponse?Result=0&ThreatLevel=%d\n", level);
}

void ClientWorker::SetThreatLevel(char *line)
{
    if (!IsAuthorised(AuthThreatLevel, kChange))
        return;
    std::int32_t level = 0;
    ParseKeys(line, {{"ThreatLevel", level}});
    if (!DataManager::GetInstance()->SetThreatLevel(level))
        return Fail();
    Audit(10803);
    Succeed();
}

void ClientWorker::RespondRecord(const char *lead, const ThreatInfo &threat)
{
    Respond("%sLevel=%d&Desc=%s\n", lead, threat.Level, threat.Desc.Get());
}

} // namespace nimbra
