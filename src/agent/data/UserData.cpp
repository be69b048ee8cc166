#include "base/PanelConstants.h"
#include "data/DataManager.h"
#include "data/Database.h"
#include "data/SqlText.h"
#include "data/WriteLock.h"

namespace nimbra {

namespace {

constexpr char kColumns[] =
    "IFNULL(FirstName, ''), IFNULL(MiddleName, ''), IFNULL(LastName, ''), IFNULL(Phone, ''), "
    "IFNULL(CellPhone, ''), IFNULL(Email, ''), IFNULL(Ada, 0), IFNULL(Exempt, 0), "
    "IFNULL(ThreatLevel, 0)";

/// Reads the columns of kColumns.
void ReadUser(Statement &row, UserInfo *user)
{
    row.Read(&user->FirstName, &user->MiddleName, &user->LastName, &user->PhoneNumber,
             &user->CellPhone, &user->Email, &user->Ada, &user->Exempt, &user->ThreatLevel);
}

SqlText Condition(const UserInfo &user)
{
    SqlText condition;
    condition.AppendFilter("No=", user.UserNo);
    condition.AppendLike("FirstName", user.FirstName.Get());
    condition.AppendLike("MiddleName", user.MiddleName.Get());
    condition.AppendLike("LastName", user.LastName.Get());
    // Not the column that is read (Phone): a panel that lacks this one refuses the filter, and
    // clients rely on the refusal.
    condition.AppendLike("PhoneNumber", user.PhoneNumber.Get());
    condition.AppendLike("CellPhone", user.CellPhone.Get());
    condition.AppendLike("Email", user.Email.Get());
    condition.AppendFilter("Ada=", user.Ada);
    condition.AppendFilter("Exempt=", user.Exempt);
    condition.AppendFilter("ThreatLevel=", user.ThreatLevel);
    return condition;
}

} // namespace

bool DataManager::GetUserInfo(UserInfo *user)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    Statement row(panel, SqlText("SELECT %s FROM User WHERE No=%d", kColumns, user->UserNo));
    if (!row.Step())
        return false;
    ReadUser(row, user);
    return true;
}

bool DataManager::GetUserInfoEx(UserFilter *filter, RowList<UserInfo> *rows)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    SqlText condition = Condition(filter->User);
    filter->Page.Total = panel.FirstNumber(SqlText("SELECT COUNT(*) FROM User ").Append(condition));
    filter->Page.SetDefaultLimit();
    filter->Page.AppendTo(condition);
    Statement row(panel, SqlText("SELECT No, %s FROM User ", kColumns).Append(condition));
    for (UserInfo user; row.Step();) {
        row.Read(&user.UserNo);
        ReadUser(row, &user);
        if (!Keep(user, rows))
            return false;
    }
    filter->Page.Count = rows->Count();
    return filter->Page.Count != 0;
}

bool DataManager::SetUserInfo(const UserInfo &user)
{
    const WriteLock lock(kLogSource);
    Database panel(kMainDatabase, kLogSource);
    return lock.IsHeld() && panel.IsOpen() &&
           Change(panel, SqlText("UPDATE User SET FirstName='%s', MiddleName='%s', LastName='%s', "
                                 "Phone='%s', CellPhone='%s', Email='%s', Ada=%d, Exempt=%d, "
                                 "ThreatLevel=%d WHERE No=%d",
                                 user.FirstName.Get(), user.MiddleName.Get(), user.LastName.Get(),
                                 user.PhoneNumber.Get(), user.CellPhone.Get(), user.Email.Get(),
                                 user.Ada, user.Exempt, user.ThreatLevel, user.UserNo));
}

bool DataManager::AddUserInfo(const UserInfo &user)
{
    const WriteLock lock(kLogSource);
    Database panel(kMainDatabase, kLogSource);
    std::int32_t number = 0;
    return lock.IsHeld() && panel.IsOpen() && NextNo(panel, "User", &number) &&
           Change(panel,
                  SqlText("INSERT INTO User (Site, No, FirstName, MiddleName, LastName, Phone, "
                          "CellPhone, Email, Ada, Exempt, ThreatLevel) VALUES (%d, %d, '%s', '%s', "
                          "'%s', '%s', '%s', '%s', %d, %d, %d)",
                          kSite, number, user.FirstName.Get(), user.MiddleName.Get(),
                          user.LastName.Get(), user.PhoneNumber.Get(), user.CellPhone.Get(),
                          user.Email.Get(), user.Ada, user.Exempt, user.ThreatLevel));
}

bool DataManager::DelUserInfo(const UserInfo &user)
{
    const WriteLock lock(kLogSource);
    Database panel(kMainDatabase, kLogSource);
    return lock.IsHeld() && panel.IsOpen() &&
           Change(panel, SqlText("DELETE FROM CardAccessLevel WHERE CardNo IN (SELECT No FROM Card "
                                 "WHERE UserNo=%d)",
                                 user.UserNo)) &&
           Change(panel, SqlText("DELETE FROM Card WHERE UserNo=%d", user.UserNo)) &&
           Change(panel, SqlText("DELETE FROM User WHERE No=%d", user.UserNo));
}

} // namespace nimbra
