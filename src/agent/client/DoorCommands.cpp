#include "client/ClientWorker.h"
#include "data/DataManager.h"

namespace nimbra {

void ClientWorker::GetDoorInfo(char *line)
{
    DoorInfo door;
    ParseKeys(line, {{"DoorNo", &door.DoorNo}});
    if (!DataManager::GetInstance()->GetDoorInfo(&door))
        return Fail();
    RespondRecord(door);
}

void ClientWorker::GetDoorInfoEx(char *line)
{
    DoorFilter filter;
    ParseKeys(line, {{"DoorNo", &filter.DoorNo},
                     {"Name", &filter.Name},
                     {"Offset", &filter.Page.Offset},
                     {"Limit", &filter.Page.Limit}});
    RowList<DoorInfo> rows;
    if (!DataManager::GetInstance()->GetDoorInfoEx(&filter, &rows))
        return Fail();
    RespondList(filter.Page, &rows);
}

void ClientWorker::GetDoorLock(char *line)
{
    std::int32_t port = 0;
    ParseKeys(line, {{"Port", &port}});
    std::int32_t status = 0;
    if (!DataManager::GetInstance()->GetDoorLock(port, &status))
        return Fail();
    Send(Response(Result::Success).Pair("Status", status));
}

void ClientWorker::SetDoorLock(char *line)
{
    std::int32_t port = 0;
    std::int32_t control = 0;
    ParseKeys(line, {{"Port", &port}, {"Control", &control}});
    if (!DataManager::GetInstance()->SetDoorLock(port, control))
        return Fail();
    Audit(control == 0 ? AuditEvent::DoorLocked : AuditEvent::DoorUnlocked);
    Succeed();
}

void ClientWorker::GetAuxOutput(char *line)
{
    std::int32_t port = 0;
    ParseKeys(line, {{"Port", &port}});
    std::int32_t status = 0;
    if (!DataManager::GetInstance()->GetAuxOutput(port, &status))
        return Fail();
    Send(Response(Result::Success).Pair("Status", status));
}

void ClientWorker::SetAuxOutput(char *line)
{
    std::int32_t port = 0;
    std::int32_t control = 0;
    ParseKeys(line, {{"Port", &port}, {"Control", &control}});
    if (!DataManager::GetInstance()->SetAuxOutput(port, control))
        return Fail();
    Audit(AuditEvent::OutputSwitched);
    Succeed();
}

} // namespace nimbra
