#include "base/PanelConstants.h"
#include "data/DataManager.h"
#include "data/Database.h"
#include "data/SqlText.h"
#include "data/WriteLock.h"

namespace nimbra {

namespace {

constexpr char kColumns[] =
    "A.UserNo, IFNULL(A.CardFormatNo, 0), IFNULL(B.Name, ''), IFNULL(A.CardNo, ''), "
    "IFNULL(A.KeyNumber, 0), IFNULL(A.CardStatus, 0), IFNULL(A.CardType, 0), "
    "IFNULL(A.NeverExpire, 0), IFNULL(A.ActDate, 0), IFNULL(A.ExpDate, 0)";

/// A card whose format is gone is not found.
constexpr char kTables[] = "Card AS A JOIN CardFormat AS B ON A.CardFormatNo = B.No";

/// Reads the columns of kColumns.
void ReadCard(Statement &row, CardInfo *card)
{
    row.Read(&card->UserNo, &card->FormatNo, &card->FormatName, &card->CardNumber, &card->KeyNumber,
             &card->CardStatus, &card->CardType, &card->NeverExpire, &card->ActDate,
             &card->ExpDate);
}

} // namespace

bool DataManager::GetCardFormat(CardFormatInfo *format)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    Statement row(panel,
                  SqlText("SELECT IFNULL(Name, ''), IFNULL(IsDefault, 0) FROM CardFormat WHERE "
                          "No=%d",
                          format->FormatNo));
    if (!row.Step())
        return false;
    row.Read(&format->Name, &format->Default);
    return true;
}

bool DataManager::GetCardFormatEx(Paging *page, RowList<CardFormatInfo> *rows)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    page->Total = panel.FirstNumber(SqlText("SELECT COUNT(*) FROM CardFormat"));
    // The page asked for is not applied: clients rely on getting every format at once.
    Statement row(panel,
                  SqlText("SELECT No, IFNULL(Name, ''), IFNULL(IsDefault, 0) FROM CardFormat"));
    for (CardFormatInfo format; row.Step();) {
        row.Read(&format.FormatNo, &format.Name, &format.Default);
        if (!Keep(format, rows))
            return false;
    }
    page->Count = rows->Count();
    return page->Count != 0;
}

bool DataManager::GetCardInfo(CardInfo *card)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    Statement row(panel, SqlText("SELECT %s FROM %s WHERE A.No=%d", kColumns, kTables, card->No));
    if (!row.Step())
        return false;
    ReadCard(row, card);
    return true;
}

bool DataManager::GetCardInfoEx(CardFilter *filter, RowList<CardInfo> *rows)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    SqlText condition;
    condition.AppendFilter("A.UserNo=", filter->UserNo);
    filter->Page.Total =
        panel.FirstNumber(SqlText("SELECT COUNT(*) FROM %s ", kTables).Append(condition));
    filter->Page.SetDefaultLimit();
    filter->Page.AppendTo(condition);
    Statement row(panel, SqlText("SELECT A.No, %s FROM %s ", kColumns, kTables).Append(condition));
    for (CardInfo card; row.Step();) {
        row.Read(&card.No);
        ReadCard(row, &card);
        if (!Keep(card, rows))
            return false;
    }
    filter->Page.Count = rows->Count();
    return filter->Page.Count != 0;
}

bool DataManager::SetCardInfo(const CardInfo &card)
{
    const WriteLock lock(kLogSource);
    Database panel(kMainDatabase, kLogSource);
    if (!lock.IsHeld() || !panel.IsOpen() ||
        !IsFree(panel, SqlText("SELECT No FROM Card WHERE No!=%d AND CardFormatNo=%d AND "
                               "CardNo='%s'",
                               card.No, card.FormatNo, card.CardNumber.Get())))
        return false;
    return Change(panel,
                  SqlText("UPDATE Card SET UserNo=%d, CardFormatNo=%d, CardNo='%s', KeyNumber=%d, "
                          "CardStatus=%d, CardType=%d, NeverExpire=%d, ActDate=%d, ExpDate=%d "
                          "WHERE No=%d",
                          card.UserNo, card.FormatNo, card.CardNumber.Get(), card.KeyNumber,
                          card.CardStatus, card.CardType, card.NeverExpire, card.ActDate,
                          card.ExpDate, card.No));
}

bool DataManager::AddCardInfo(const CardInfo &card)
{
    const WriteLock lock(kLogSource);
    Database panel(kMainDatabase, kLogSource);
    if (!lock.IsHeld() || !panel.IsOpen() ||
        !IsFree(panel, SqlText("SELECT No FROM Card WHERE CardFormatNo=%d AND CardNo='%s'",
                               card.FormatNo, card.CardNumber.Get())))
        return false;
    std::int32_t number = 0;
    return NextNo(panel, "Card", &number) &&
           Change(panel,
                  SqlText("INSERT INTO Card (Site, No, UserNo, CardFormatNo, CardNo, KeyNumber, "
                          "CardStatus, CardType, NeverExpire, ActDate, ExpDate, SelectType) VALUES "
                          "(%d, %d, %d, %d, '%s', %d, %d, %d, %d, %d, %d, %d)",
                          kSite, number, card.UserNo, card.FormatNo, card.CardNumber.Get(),
                          card.KeyNumber, card.CardStatus, card.CardType, card.NeverExpire,
                          card.ActDate, card.ExpDate, kPlainLevels));
}

bool DataManager::DelCardInfo(const CardInfo &card)
{
    const WriteLock lock(kLogSource);
    Database panel(kMainDatabase, kLogSource);
    return lock.IsHeld() && panel.IsOpen() &&
           Change(panel, SqlText("DELETE FROM CardAccessLevel WHERE CardNo=%d", card.No)) &&
           Change(panel, SqlText("DELETE FROM Card WHERE No=%d", card.No));
}

bool DataManager::IsFree(Database &database, const SqlText &duplicates, CallPlace place)
{
    if (Statement(database, duplicates).Step()) {
        Log(place.In(kLogSource), "CardFormatNo+CardNo exist");
        return false;
    }
    if (database.IsLocked()) {
        Log(place.In(kLogSource), "sqlite3_exec fail");
        return false;
    }
    return true;
}

} // namespace nimbra
