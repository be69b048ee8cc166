#include "base/PanelConstants.h"
#include "data/DataManager.h"
#include "data/Database.h"
#include "data/SqlText.h"

namespace nimbra {

namespace {

constexpr char kColumns[] =
    "IFNULL(A.Date, 0), IFNULL(A.Type, 0), IFNULL(A.Port, 0), IFNULL(A.DeviceName, ''), "
    "IFNULL(A.EventCode, 0), IFNULL(B.Name, ''), IFNULL(A.CardNo, 0), IFNULL(A.UserNo, 0), "
    "IFNULL(A.UserName, ''), IFNULL(A.Res1, 0)";
constexpr char kTables[] = "Log AS A JOIN Nimbra.EventCode AS B ON A.EventCode=B.EventCode";

/// What every list reports as its Total: clients rely on the fixed number, which is no count.
constexpr std::int32_t kTotal = 100000;

/// Reads the columns of kColumns.
void ReadEvent(Statement &row, EventInfo *event)
{
    row.Read(&event->Date, &event->DeviceType, &event->DevicePort, &event->DeviceName,
             &event->EventCode, &event->EventDesc, &event->CardNo, &event->UserNo, &event->UserName,
             &event->VideoTag);
}

SqlText Condition(const EventFilter &filter)
{
    SqlText condition;
    condition.AppendFilter("A.No=", filter.EventNo);
    condition.AppendFilter("A.Date>=", filter.FromTime);
    condition.AppendFilter("A.Date<=", filter.ToTime);
    condition.AppendFilter("A.Type=", filter.DeviceType);
    condition.AppendFilter("A.Port=", filter.DevicePort);
    condition.AppendLike("A.DeviceName", filter.DeviceName.Get());
    condition.AppendFilter("A.EventCode=", filter.EventCode);
    condition.AppendLike("B.Name", filter.EventDesc.Get());
    condition.AppendFilter("A.CardNo=", filter.CardNo);
    condition.AppendFilter("A.UserNo=", filter.UserNo);
    condition.AppendLike("A.UserName", filter.UserName.Get());
    condition.AppendFilter("A.Res1=", filter.VideoTag);
    return condition;
}

} // namespace

bool DataManager::GetEventLog(EventInfo *event)
{
    Database log(kLogDatabase, kLogSource);
    if (!log.IsOpen() || !AttachPanel(log))
        return false;
    Statement row(log,
                  SqlText("SELECT %s FROM %s WHERE A.No = %d", kColumns, kTables, event->EventNo));
    if (!row.Step())
        return false;
    ReadEvent(row, event);
    return true;
}

bool DataManager::GetEventLogEx(EventFilter *filter, RowList<EventInfo> *rows)
{
    Database log(kLogDatabase, kLogSource);
    if (!log.IsOpen() || !AttachPanel(log))
        return false;
    filter->Page.Total = kTotal;
    filter->Page.SetDefaultLimit();
    SqlText condition = Condition(*filter);
    condition.Append(" ORDER BY A.No DESC");
    filter->Page.AppendTo(condition);
    Statement row(log, SqlText("SELECT A.No, %s FROM %s ", kColumns, kTables).Append(condition));
    for (EventInfo event; row.Step();) {
        row.Read(&event.EventNo);
        ReadEvent(row, &event);
        if (!Keep(event, rows))
            return false;
    }
    filter->Page.Count = rows->Count();
    return filter->Page.Count != 0;
}

bool DataManager::AttachPanel(Database &log, CallPlace place)
{
    if (log.Execute(SqlText("ATTACH DATABASE '%s' as Nimbra", kMainDatabase)) == 0)
        return true;
    Log(place.In(kLogSource), "sqlite3_exec fail");
    return false;
}

} // namespace nimbra
