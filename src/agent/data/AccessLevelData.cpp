#include "base/PanelConstants.h"
#include "data/DataManager.h"
#include "data/Database.h"
#include "data/SqlText.h"
#include "data/WriteLock.h"
#include "protocol/Request.h"

#include <cstring>
#include <string>

namespace nimbra {

namespace {

/// One kind of access level, and where its rows are.
struct LevelKind
{
    std::int32_t SelectType;
    const char *TableAndCondition;
};
constexpr LevelKind kLevelKinds[] = {{kPlainLevels, "AccessLevel"},
                                     {kLevelGroups, "GroupTable WHERE GroupKind=5"}};

} // namespace

bool DataManager::GetAccessLevel(AccessLevelInfo *level)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    // Groups only, whatever kind was asked for; clients rely on it.
    level->SelectType = kLevelGroups;
    Statement row(panel,
                  SqlText("SELECT IFNULL(Name, '') FROM GroupTable WHERE GroupKind=5 AND No=%d",
                          level->LevelNo));
    if (!row.Step())
        return false;
    row.Read(&level->Name);
    return true;
}

bool DataManager::GetAccessLevelEx(std::int32_t selectType, Paging *page,
                                   RowList<AccessLevelInfo> *rows)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    // The page asked for is not applied: clients rely on getting every level at once.
    for (const LevelKind &kind : kLevelKinds) {
        const bool isOneKind = selectType == kPlainLevels || selectType == kLevelGroups;
        if (isOneKind && kind.SelectType != selectType)
            continue;
        page->Total +=
            panel.FirstNumber(SqlText("SELECT COUNT(*) FROM %s", kind.TableAndCondition));
        Statement row(panel,
                      SqlText("SELECT No, IFNULL(Name, '') FROM %s", kind.TableAndCondition));
        for (AccessLevelInfo level; row.Step();) {
            level.SelectType = kind.SelectType;
            row.Read(&level.LevelNo, &level.Name);
            if (!Keep(level, rows))
                return false;
        }
    }
    page->Count = rows->Count();
    return page->Count != 0 && !panel.IsLocked();
}

bool DataManager::GetCardAccessLevel(CardAccessLevel *levels)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    Statement card(panel,
                   SqlText("SELECT IFNULL(SelectType, 0) FROM Card WHERE No=%d", levels->CardNo));
    if (!card.Step())
        return false;
    card.Read(&levels->SelectType);
    std::string list;
    Statement row(panel, SqlText("SELECT AccessLevelNo FROM CardAccessLevel WHERE CardNo=%d",
                                 levels->CardNo));
    while (row.Step()) {
        std::int32_t number = 0;
        row.Read(&number);
        const std::string word = (list.empty() ? "" : " ") + std::to_string(number);
        if (list.size() + word.size() > kLevelListSize)
            break;
        list += word;
    }
    levels->AccessLevelNo.Assign(list);
    return !panel.IsLocked();
}

bool DataManager::SetCardAccessLevel(const CardAccessLevel &levels)
{
    const WriteLock lock(kLogSource);
    // Before anything is changed, since there may be no memory for it.
    std::string list(levels.AccessLevelNo.View());
    Database panel(kMainDatabase, kLogSource);
    if (!lock.IsHeld() || !panel.IsOpen() ||
        !Change(panel, SqlText("UPDATE Card SET SelectType=%d WHERE No=%d", levels.SelectType,
                               levels.CardNo)) ||
        !Change(panel, SqlText("DELETE FROM CardAccessLevel WHERE CardNo=%d", levels.CardNo)))
        return false;
    char *rest = nullptr;
    for (const char *piece = strtok_r(list.data(), " ", &rest); piece != nullptr;
         piece = strtok_r(nullptr, " ", &rest)) {
        std::int32_t number = 0;
        if (!NextNo(panel, "CardAccessLevel", &number) ||
            !Change(panel, SqlText("INSERT INTO CardAccessLevel (Site, No, CardNo, AccessLevelNo) "
                                   "VALUES (%d, %d, %d, %d)",
                                   kSite, number, levels.CardNo, ToNumber(piece))))
            return false;
    }
    return true;
}

} // namespace nimbra
