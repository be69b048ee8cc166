#include "base/PanelConstants.h"
#include "base/Wait.h"
#include "data/DataManager.h"
#include "data/Database.h"
#include "data/Shell.h"
#include "data/SqlText.h"

#include <iterator>

namespace nimbra {

namespace {

/// The words of the command tool for a door, by the client's control value.
constexpr const char *kDoorCommands[] = {"locked", "unlocked", "m_unlock"};

/// Has the command tool do something to a door or an output.
void RunTool(const char *thing, std::int32_t number, const char *what)
{
    FixedText<63> line;
    line.Format("/nimbra/sbin/nimbra-cgi %s %d %s", thing, number, what);
    RunCommand(line.Get());
}

/// Reads a door's name. Ends its statement before the lock state is read on a connection of its
/// own: an open statement would keep out a change of another session, and that change the reading.
bool ReadName(Database &panel, DoorInfo *door)
{
    Statement row(panel, SqlText("SELECT IFNULL(Name, '') FROM Door WHERE No=%d AND Disable=0",
                                 door->DoorNo));
    if (!row.Step())
        return false;
    row.Read(&door->Name);
    return true;
}

} // namespace

bool DataManager::GetDoorInfo(DoorInfo *door)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    if (!ReadName(panel, door))
        return false;
    // A door without a lock relay keeps Status 0.
    static_cast<void>(GetDoorLock(door->DoorNo, &door->Status));
    return !panel.IsLocked();
}

bool DataManager::GetDoorInfoEx(DoorFilter *filter, RowList<DoorInfo> *rows)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    SqlText condition;
    condition.AppendFilter("No=", filter->DoorNo);
    condition.AppendLike("Name", filter->Name.Get());
    condition.Append(" %s Disable=0", condition.Link());
    filter->Page.Total = panel.FirstNumber(SqlText("SELECT COUNT(*) FROM Door ").Append(condition));
    filter->Page.AppendTo(condition);
    RowList<DoorInfo> doors;
    {
        Statement row(panel, SqlText("SELECT No, IFNULL(Name, '') FROM Door ").Append(condition));
        for (DoorInfo door; row.Step();) {
            row.Read(&door.DoorNo, &door.Name);
            if (!Keep(door, &doors))
                return false;
        }
    }
    // With the statement ended, as for one door.
    for (DoorInfo door; doors.TakeFront(&door);) {
        static_cast<void>(GetDoorLock(door.DoorNo, &door.Status));
        if (panel.IsLocked() || !Keep(door, rows))
            return false;
    }
    filter->Page.Count = rows->Count();
    return filter->Page.Count != 0;
}

bool DataManager::GetDoorLock(std::int32_t doorNo, std::int32_t *status)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    // A contact of the other sense turns the meaning of the relay around.
    const bool isInverted =
        panel.FirstNumber(
            SqlText("SELECT IFNULL(DoorContactState, 0) FROM Door WHERE No=%d", doorNo)) != 0;
    Statement relay(panel, SqlText("SELECT IFNULL(RelayOn, 0) FROM RelayStatus WHERE Type=3 AND "
                                   "No=%d",
                                   doorNo));
    if (!relay.Step())
        return false;
    std::int32_t isOn = 0;
    relay.Read(&isOn);
    *status = (isOn == 1) != isInverted ? 1 : 0;
    return true;
}

bool DataManager::SetDoorLock(std::int32_t doorNo, std::int32_t control)
{
    if (control >= 0 && control < static_cast<std::int32_t>(std::size(kDoorCommands)))
        RunTool("door", doorNo, kDoorCommands[control]);
    PauseSeconds(1);
    return true;
}

bool DataManager::GetAuxOutput(std::int32_t outputNo, std::int32_t *status)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    Statement relay(panel, SqlText("SELECT IFNULL(RelayOn, 0) FROM RelayStatus WHERE Type=2 AND "
                                   "No=%d",
                                   outputNo));
    if (!relay.Step())
        return false;
    std::int32_t isOn = 0;
    relay.Read(&isOn);
    *status = isOn == 1 ? 1 : 0;
    return true;
}

bool DataManager::SetAuxOutput(std::int32_t outputNo, std::int32_t control)
{
    // Unlike a door, an output is not waited for; clients rely on the quick answer.
    RunTool("auxout", outputNo, control != 0 ? "on" : "off");
    return true;
}

} // namespace nimbra
