#include "base/PanelConstants.h"
#include "data/DataManager.h"
#include "data/Database.h"
#include "data/Shell.h"
#include "data/SqlText.h"
#include "data/WriteLock.h"

namespace nimbra {

bool DataManager::GetThreatInfo(ThreatInfo *threat)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    Statement row(panel, SqlText("SELECT IFNULL(ThreatName, '') FROM ThreatLevel WHERE Level=%d",
                                 threat->Level));
    if (!row.Step())
        return false;
    row.Read(&threat->Desc);
    return true;
}

bool DataManager::GetThreatInfoEx(Paging *page, RowList<ThreatInfo> *rows)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    page->Total = panel.FirstNumber(SqlText("SELECT COUNT(*) FROM ThreatLevel"));
    // The page asked for is not applied: clients rely on getting every level at once.
    Statement row(panel, SqlText("SELECT Level, IFNULL(ThreatName, '') FROM ThreatLevel"));
    for (ThreatInfo threat; row.Step();) {
        row.Read(&threat.Level, &threat.Desc);
        if (!Keep(threat, rows))
            return false;
    }
    page->Count = rows->Count();
    return page->Count != 0;
}

bool DataManager::GetThreatLevel(std::int32_t *level)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    Statement row(panel, SqlText("SELECT IFNULL(ThreatStatus, 0) FROM Threat"));
    if (!row.Step())
        return false;
    row.Read(level);
    return true;
}

bool DataManager::SetThreatLevel(std::int32_t level)
{
    {
        const WriteLock lock(kLogSource);
        Database panel(kMainDatabase, kLogSource);
        if (!lock.IsHeld() || !panel.IsOpen())
            return false;
        // The one change that is not journalled: the command tool informs the panel.
        if (panel.Execute(SqlText("UPDATE Threat SET ThreatStatus=%d", level)) != 0) {
            NIMBRA_LOG("sqlite3_exec fail");
            return false;
        }
    }
    RunCommand("/nimbra/sbin/nimbra-cgi savethreat");
    return true;
}

} // namespace nimbra
