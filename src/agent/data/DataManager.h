#pragma once

#include "base/FixedText.h"
#include "base/Log.h"
#include "data/AccessLevelInfo.h"
#include "data/Authority.h"
#include "data/CardInfo.h"
#include "data/DoorInfo.h"
#include "data/EventCodeInfo.h"
#include "data/EventInfo.h"
#include "data/Paging.h"
#include "data/RowList.h"
#include "data/ThreatInfo.h"
#include "data/UserInfo.h"
#include "data/VideoInfo.h"

#include <cstdint>

namespace nimbra {

class Database;
class SqlText;

/// The one gateway to the panel's databases. It keeps no connection and no cache: every method
/// opens its database, runs its statements and closes it again, so that it sees what the panel
/// wrote last. Any thread may call any method; the change methods run one at a time, under
/// WriteLock, so that two never assign the same number.
///
/// A query method fills its record, or appends to `rows`, and returns true if there was anything;
/// false means that nothing was found, that the database failed, or that the rows are more than
/// fit. A change method returns false at its first statement that fails; what ran before stays
/// done, and journalled.
class DataManager
{
public:
    [[nodiscard]] static DataManager *GetInstance();
    virtual ~DataManager() = default;

    /// Checks a login against the controller account and then the web users, and on success fills
    /// the authority record, all clear before. A role without rows logs in without any right.
    [[nodiscard]] bool CheckPassword(const FixedText<32> &userName, const FixedText<68> &password,
                                     AuthorityRecord *authority);
    /// The SHA-256 of a text as 64 upper-case hexadecimal digits.
    [[nodiscard]] static FixedText<64> HashPassword(const char *text);
    /// Appends an executed statement to the journal that the panel software reads. A failure is
    /// only logged. Called by the change methods, under WriteLock.
    void AddDBQueryInfo(const char *statement);
    /// Has the panel's command tool write an audit entry, and waits for it. Nothing fails.
    void WriteAuditLog(const FixedText<32> &address, const FixedText<32> &userName, int eventCode);

    bool GetEventLog(EventInfo *event);
    bool GetEventLogEx(EventFilter *filter, RowList<EventInfo> *rows);

    bool GetEventCode(EventCodeInfo *code);
    bool GetEventCodeEx(EventCodeFilter *filter, RowList<EventCodeInfo> *rows);

    bool GetLiveVideoInfo(VideoInfo *video);
    bool GetPlayVideoInfo(VideoInfo *video);

    bool GetDoorInfo(DoorInfo *door);
    bool GetDoorInfoEx(DoorFilter *filter, RowList<DoorInfo> *rows);
    bool GetDoorLock(std::int32_t doorNo, std::int32_t *status);
    bool SetDoorLock(std::int32_t doorNo, std::int32_t control); ///< takes a second, never fails
    bool GetAuxOutput(std::int32_t outputNo, std::int32_t *status);
    bool SetAuxOutput(std::int32_t outputNo, std::int32_t control); ///< never fails

    bool GetUserInfo(UserInfo *user);
    bool GetUserInfoEx(UserFilter *filter, RowList<UserInfo> *rows);
    bool SetUserInfo(const UserInfo &user);
    bool AddUserInfo(const UserInfo &user);
    bool DelUserInfo(const UserInfo &user);

    bool GetUserImage(UserImage *image); ///< false, too, for a name of 4 bytes or less
    bool SetUserImage(const UserImage &image);

    bool GetCardFormat(CardFormatInfo *format);
    bool GetCardFormatEx(Paging *page, RowList<CardFormatInfo> *rows);
    bool GetCardInfo(CardInfo *card);
    bool GetCardInfoEx(CardFilter *filter, RowList<CardInfo> *rows);
    bool SetCardInfo(const CardInfo &card);
    bool AddCardInfo(const CardInfo &card);
    bool DelCardInfo(const CardInfo &card);

    bool GetAccessLevel(AccessLevelInfo *level);
    bool GetAccessLevelEx(std::int32_t selectType, Paging *page, RowList<AccessLevelInfo> *rows);
    bool GetCardAccessLevel(CardAccessLevel *levels);
    bool SetCardAccessLevel(const CardAccessLevel &levels);

    bool GetThreatInfo(ThreatInfo *threat);
    bool GetThreatInfoEx(Paging *page, RowList<ThreatInfo> *rows);
    bool GetThreatLevel(std::int32_t *level);
    bool SetThreatLevel(std::int32_t level);

private:
    static constexpr char kLogSource[] = "DataManager.cpp";
    /// The one site of a panel, in every row that the agent adds.
    static constexpr int kSite = 1;

    DataManager() = default;

    /// Runs one statement of the calling change method and journals it. Logs "sqlite3_exec fail".
    bool Change(Database &database, const SqlText &sql, CallPlace place = CallPlace::Here());
    /// Appends a row to a list of the calling method. Logs "RowList full".
    template <class Record>
    static bool Keep(const Record &row, RowList<Record> *rows, CallPlace place = CallPlace::Here())
    {
        if (rows->Append(row))
            return true;
        Log(place.In(kLogSource), "RowList full");
        return false;
    }
    /// Attaches the main database to the event log's. Logs "sqlite3_exec fail".
    static bool AttachPanel(Database &log, CallPlace place = CallPlace::Here());
    /// Whether the query for a card of the same format and number finds none. Logs it if not, and
    /// "sqlite3_exec fail" when a locked database hides it.
    static bool IsFree(Database &database, const SqlText &duplicates,
                       CallPlace place = CallPlace::Here());
    /// Finds the number that a new row of `table` gets: one more than the largest, 1 in an empty
    /// table. Logs "sqlite3_exec fail" when a locked database hides it.
    static bool NextNo(Database &database, const char *table, std::int32_t *number,
                       CallPlace place = CallPlace::Here());
};

} // namespace nimbra
