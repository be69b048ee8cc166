#include "client/ClientWorker.h"
#include "data/DataManager.h"

#include <vector>

namespace nimbra {

namespace {

/// The keys of all that is kept of a user but the number.
std::vector<RequestKey> DataKeys(UserInfo *user)
{
    return {{"FirstName", &user->FirstName},
            {"MiddleName", &user->MiddleName},
            {"LastName", &user->LastName},
            {"PhoneNumber", &user->PhoneNumber},
            {"CellPhone", &user->CellPhone},
            {"Email", &user->Email},
            {"Ada", &user->Ada},
            {"Exempt", &user->Exempt},
            {"ThreatLevel", &user->ThreatLevel}};
}

} // namespace

void ClientWorker::GetUserInfo(char *line)
{
    UserInfo user;
    ParseKeys(line, {{"UserNo", &user.UserNo}});
    if (!DataManager::GetInstance()->GetUserInfo(&user))
        return Fail();
    RespondRecord(user);
}

void ClientWorker::GetUserInfoEx(char *line)
{
    UserFilter filter;
    std::vector<RequestKey> keys = DataKeys(&filter.User);
    keys.insert(keys.end(), {{"UserNo", &filter.User.UserNo},
                             {"Offset", &filter.Page.Offset},
                             {"Limit", &filter.Page.Limit}});
    ParseKeys(line, keys);
    RowList<UserInfo> rows;
    if (!DataManager::GetInstance()->GetUserInfoEx(&filter, &rows))
        return Fail();
    RespondList(filter.Page, &rows);
}

void ClientWorker::SetUserInfo(char *line)
{
    UserInfo user;
    std::vector<RequestKey> keys = DataKeys(&user);
    keys.emplace_back("UserNo", &user.UserNo);
    ParseKeys(line, keys);
    if (user.UserNo == 0 || user.LastName.IsEmpty())
        return Answer(Result::BadMessage, "Message fail");
    if (!DataManager::GetInstance()->SetUserInfo(user))
        return Fail();
    Audit(AuditEvent::UserChanged);
    Succeed();
}

void ClientWorker::AddUserInfo(char *line)
{
    UserInfo user;
    ParseKeys(line, DataKeys(&user));
    if (user.LastName.IsEmpty())
        return Answer(Result::BadMessage, "Message fail");
    if (!DataManager::GetInstance()->AddUserInfo(user))
        return Fail();
    Audit(AuditEvent::UserAdded);
    Succeed();
}

void ClientWorker::DelUserInfo(char *line)
{
    UserInfo user;
    ParseKeys(line, {{"UserNo", &user.UserNo}});
    if (!DataManager::GetInstance()->DelUserInfo(user))
        return Fail();
    Audit(AuditEvent::UserDeleted);
    Succeed();
}

} // namespace nimbra
