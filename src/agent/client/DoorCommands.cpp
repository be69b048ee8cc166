#include "client/ClientWorker.h"
#include "data/DataManager.h"

namespace nimbra {

void ClientWorker::GetDoorInfo(char *line)
{
    if (!IsAuthorised(AuthDoors, kView))
        return;
    DoorInfo door;
    ParseKeys(line, {{"DoorNo", door.DoorNo}});
    if (!DataManager::GetInstance()->GetDoorInfo(&door))
        return Fail();
    RespondRecord("GetDoorInfoResponse?Result=0&", door);
}

void ClientWorker::GetDoorInfoEx(char *line)
{
    if (!IsAuthorised(AuthDoors, kView))
        return;
    DoorFilter filter;
    ParseKeys(line, {{"DoorNo", filter.DoorNo},
                     {"Name", filter.Name},
                     {"Offset", filter.Page.Offset},
                     {"Limit", filter.Page.Limit}});
    RowList<DoorInfo> rows;
    if (!DataManager::GetInstance()->GetDoorInfoEx(&filter, &rows))
        return Fail();
    RespondList(filter.Page, &rows);
}

void ClientWorker::GetDoorLock(char *line)
{
    if (!IsAuthorised(AuthDoorLock, kView))
        return;
    std::int32_t port = 0;
    ParseKeys(line, {{"Port", port}});
    std::int32_t status = 0;
    if (!DataManager::GetInstance()->GetDoorLock(port, &status))
        return Fail();
    Respond("GetDoorLockResponse?Result=0&Status=%d\n", status);
}

void ClientWorker::SetDoorLock(char *line)
{
    if (!IsAuthorised(AuthDoorLock, kChange))
        return;
    std::int32_t port = 0;
    std::int32_t control = 0;
    ParseKeys(line, {{"Port", port}, {"Control", control}});
    if (!DataManager::GetInstance()->SetDoorLock(port, control))
        return Fail();
    Audit(control == 0 ? 11213 : 11212);
    Succeed();
}

void ClientWorker::GetAuxOutput(char *line)
{
    if (!IsAuthorised(AuthAuxOutput, kView))
        return;
    std::int32_t port = 0;
    ParseKeys(line, {{"Port", port}});
    std::int32_t status = 0;
    if (!DataManager::GetInstance()->GetAuxOutput(port, &status))
        return Fail();
    Respond("GetAuxOutputResponse?Result=0&Status=%d\n", status);
}

void ClientWorker::SetAuxOutput(char *line)
{
    if (!IsAuthorised(AuthAuxOutput, kChange))
        return;
    std::int32_t port = 0;
    std::int32_t control = 0;
    ParseKeys(line, {{"Port", port}, {"Control", control}});
    if (!DataManager::GetInstance()->SetAuxOutput(port, control))
        return Fail();
    Audit(11415);
    Succeed();
}

void ClientWorker::RespondRecord(const char *lead, const DoorInfo &door)
{
    Respond("%sDoorNo=%d&Name=%s&Status=%d\n", lead, door.DoorNo, door.Name.Get(), door.Status);
}

} // namespace nimbra
