#include "client/ClientWorker.h"
#include "data/DataManager.h"

#include <vector>

namespace nimbra {

namespace {

/// The keys of all that is kept of a user but the number.
std::vector<RequestKey> DataKeys(UserInfo &user)
{
    return {{"FirstName", user.FirstName},
            {"MiddleName", user.MiddleName},
            {"LastName", user.LastName},
            {"PhoneNumber", user.PhoneNumber},
            {"CellPhone", user.CellPhone},
            {"Email", user.Email},
            {"Ada", user.Ada},
            {"Exempt", user.Exempt},
            {"ThreatLevel", user.ThreatLevel}};
}

} // namespace

void ClientWorker::GetUserInfo(char *line)
{
    if (!IsAuthorised(AuthUsers, kView))
        return;
    UserInfo user;
    ParseKeys(line, {{"UserNo", user.UserNo}});
    if (!DataManager::GetInstance()->GetUserInfo(&user))
        return Fail();
    RespondRecord("GetUserInfoResponse?Result=0&", user);
}

void ClientWorker::GetUserInfoEx(char *line)
{
    if (!IsAuthorised(AuthUsers, kView))
        return;
    UserFilter filter;
    std::vector<RequestKey> keys = DataKeys(filter.User);
    keys.insert(keys.end(), {{"UserNo", filter.User.UserNo},
                             {"Offset", filter.Page.Offset},
                             {"Limit", filter.Page.Limit}});
    ParseKeys(line, keys);
    RowList<UserInfo> rows;
    if (!DataManager::GetInstance()->GetUserInfoEx(&filter, &rows))
        return Fail();
    RespondList(filter.Page, &rows);
}

void ClientWorker::SetUserInfo(char *line)
{
    if (!IsAuthorised(AuthUsers, kChange))
        return;
    UserInfo user;
    std::vector<RequestKey> keys = DataKeys(user);
    keys.emplace_back("UserNo", user.UserNo);
    ParseKeys(line, keys);
    if (user.UserNo == 0 || user.LastName.IsEmpty())
        return Answer(Result::BadMessage, "Message fail");
    if (!DataManager::GetInstance()->SetUserInfo(user))
        return Fail();
    Audit(10303);
    Succeed();
}

void ClientWorker::AddUserInfo(char *line)
{
    if (!IsAuthorised(AuthUsers, kAdd))
        return;
    UserInfo user;
    ParseKeys(line, DataKeys(user));
    if (user.LastName.IsEmpty())
        return Answer(Result::BadMessage, "Message fail");
    if (!DataManager::GetInstance()->AddUserInfo(user))
        return Fail();
    Audit(10301);
    Succeed();
}

void ClientWorker::DelUserInfo(char *line)
{
    if (!IsAuthorised(AuthUsers, kChange))
        return;
    UserInfo user;
    ParseKeys(line, {{"UserNo", user.UserNo}});
    if (!DataManager::GetInstance()->DelUserInfo(user))
        return Fail();
    Audit(10302);
    Succeed();
}

void ClientWorker::RespondRecord(const char *lead, const UserInfo &user)
{
    Respond("%sUserNo=%d&FirstName=%s&MiddleName=%s&LastName=%s&PhoneNumber=%s&CellPhone=%s"
            "&Email=%s&Ada=%d&Exempt=%d&ThreatLevel=%d\n",
            lead, user.UserNo, user.FirstName.Get(), user.MiddleName.Get(), user.LastName.Get(),
            user.PhoneNumber.Get(), user.CellPhone.Get(), user.Email.Get(), user.Ada, user.Exempt,
            user.ThreatLevel);
}

} // namespace nimbra
