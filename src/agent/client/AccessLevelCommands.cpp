#include "client/ClientWorker.h"
#include "data/DataManager.h"
#include "protocol/Line.h"

#include <cstdio>
#include <string>
#include <string_view>

namespace nimbra {

namespace {

constexpr char kCardLevels[] =
    "GetCardAccessLevelResponse?Result=0&SelectType=%d&AccessLevelNo=%s\n";

} // namespace

void ClientWorker::GetAccessLevel(char *line)
{
    if (!IsAuthorised(AuthAccessLevels, kView))
        return;
    AccessLevelInfo level;
    ParseKeys(line, {{"SelectType", level.SelectType}, {"LevelNo", level.LevelNo}});
    if (!DataManager::GetInstance()->GetAccessLevel(&level))
        return Fail();
    Respond("GetAccessLevelResponse?Result=0&LevelNo=%d&Name=%s\n", level.LevelNo,
            level.Name.Get());
}

void ClientWorker::GetAccessLevelEx(char *line)
{
    if (!IsAuthorised(AuthAccessLevels, kView))
        return;
    std::int32_t selectType = 0;
    Paging page;
    ParseKeys(line, {{"SelectType", selectType}, {"Offset", page.Offset}, {"Limit", page.Limit}});
    RowList<AccessLevelInfo> rows;
    if (!DataManager::GetInstance()->GetAccessLevelEx(selectType, &page, &rows))
        return Fail();
    RespondList(page, &rows);
}

void ClientWorker::GetCardAccessLevel(char *line)
{
    if (!IsAuthorised(AuthCards, kView))
        return;
    CardAccessLevel levels;
    ParseKeys(line, {{"CardNo", levels.CardNo}});
    if (!DataManager::GetInstance()->GetCardAccessLevel(&levels))
        return Fail();
    // As many whole numbers as the line holds.
    const auto taken =
        static_cast<std::size_t>(std::snprintf(nullptr, 0, kCardLevels, levels.SelectType, ""));
    const std::size_t room = kLineSize - 1 - taken;
    std::string_view list = levels.AccessLevelNo.View();
    if (list.size() > room)
        levels.AccessLevelNo.Assign(std::string(list.substr(0, list.rfind(' ', room))));
    Respond(kCardLevels, levels.SelectType, levels.AccessLevelNo.Get());
}

void ClientWorker::SetCardAccessLevel(char *line)
{
    if (!IsAuthorised(AuthCards, kChange))
        return;
    CardAccessLevel levels;
    ParseKeys(line, {{"CardNo", levels.CardNo},
                     {"SelectType", levels.SelectType},
                     {"AccessLevelNo", levels.AccessLevelNo}});
    if (!DataManager::GetInstance()->SetCardAccessLevel(levels))
        return Fail();
    Audit(10403);
    Succeed();
}

void ClientWorker::RespondRecord(const char *lead, const AccessLevelInfo &level)
{
    Respond("%sSelectType=%d&LevelNo=%d&Name=%s\n", lead, level.SelectType, level.LevelNo,
            level.Name.Get());
}

} // namespace nimbra
