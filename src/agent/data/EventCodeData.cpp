#include "base/PanelConstants.h"
#include "data/DataManager.h"
#include "data/Database.h"
#include "data/SqlText.h"

namespace nimbra {

bool DataManager::GetEventCode(EventCodeInfo *code)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    Statement row(panel,
                  SqlText("SELECT IFNULL(Name, '') FROM EventCode WHERE EventCode=%d", code->Code));
    if (!row.Step())
        return false;
    row.Read(&code->Desc);
    return true;
}

bool DataManager::GetEventCodeEx(EventCodeFilter *filter, RowList<EventCodeInfo> *rows)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    SqlText condition;
    condition.AppendFilter("EventCode=", filter->Code);
    condition.AppendLike("Name", filter->Desc.Get());
    filter->Page.Total =
        panel.FirstNumber(SqlText("SELECT COUNT(*) FROM EventCode ").Append(condition));
    filter->Page.AppendTo(condition);
    Statement row(panel,
                  SqlText("SELECT EventCode, IFNULL(Name, '') FROM EventCode ").Append(condition));
    for (EventCodeInfo code; row.Step();) {
        row.Read(&code.Code, &code.Desc);
        if (!Keep(code, rows))
            return false;
    }
    filter->Page.Count = rows->Count();
    return filter->Page.Count != 0;
}

} // namespace nimbra
