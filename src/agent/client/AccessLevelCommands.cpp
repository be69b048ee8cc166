#include "client/ClientWorker.h"
#include "data/DataManager.h"

namespace nimbra {

void ClientWorker::GetAccessLevel(char *line)
{
    AccessLevelInfo level;
    ParseKeys(line, {{"SelectType", &level.SelectType}, {"LevelNo", &level.LevelNo}});
    if (!DataManager::GetInstance()->GetAccessLevel(&level))
        return Fail();
    Send(Response(Result::Success).Pair("LevelNo", level.LevelNo).Pair("Name", level.Name));
}

void ClientWorker::GetAccessLevelEx(char *line)
{
    std::int32_t selectType = 0;
    Paging page;
    ParseKeys(line,
              {{"SelectType", &selectType}, {"Offset", &page.Offset}, {"Limit", &page.Limit}});
    RowList<AccessLevelInfo> rows;
    if (!DataManager::GetInstance()->GetAccessLevelEx(selectType, &page, &rows))
        return Fail();
    RespondList(page, &rows);
}

void ClientWorker::GetCardAccessLevel(char *line)
{
    CardAccessLevel levels;
    ParseKeys(line, {{"CardNo", &levels.CardNo}});
    if (!DataManager::GetInstance()->GetCardAccessLevel(&levels))
        return Fail();
    Send(Response(Result::Success)
             .Pair("SelectType", levels.SelectType)
             .WordsPair("AccessLevelNo", levels.AccessLevelNo.View()));
}

void ClientWorker::SetCardAccessLevel(char *line)
{
    CardAccessLevel levels;
    ParseKeys(line, {{"CardNo", &levels.CardNo},
                     {"SelectType", &levels.SelectType},
                     {"AccessLevelNo", &levels.AccessLevelNo}});
    if (!DataManager::GetInstance()->SetCardAccessLevel(levels))
        return Fail();
    Audit(AuditEvent::CardChanged);
    Succeed();
}

} // namespace nimbra
