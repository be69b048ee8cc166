#include "fuzz/RecordedData.h"

#include "data/DataManager.h"

namespace nimbra {

namespace {

using fuzz::Fields;
using fuzz::RecordedData;

std::string Text(std::int32_t number)
{
    return std::to_string(number);
}
template <std::size_t N>
std::string Text(const FixedText<N> &text)
{
    return std::string(text.View());
}

/// Records a call of the calling method; returns whether it succeeds.
bool Record(const Fields &fields, CallPlace place = CallPlace::Here())
{
    RecordedData &recorded = RecordedData::Get();
    recorded.Calls.push_back({place.Method, fields});
    return recorded.Found > 0;
}

/// Fills a text completely, so that answers have their maximum length.
template <std::size_t N>
void Fill(FixedText<N> &text)
{
    text.Assign(std::string(N, 'x'));
}

void Fill(EventInfo &event)
{
    Fill(event.DeviceName);
    Fill(event.EventDesc);
    Fill(event.UserName);
    event.Date = event.EventCode = event.VideoTag = INT32_MIN;
}
void Fill(EventCodeInfo &code)
{
    Fill(code.Desc);
}
void Fill(VideoInfo &video)
{
    Fill(video.Name);
    Fill(video.Address);
    Fill(video.Username);
    Fill(video.Password);
    Fill(video.CameraID);
    video.Url.Assign("rtsp://" + std::string(249, 'x'));
    video.Type = video.Port = video.Channel = INT32_MIN;
}
void Fill(DoorInfo &door)
{
    Fill(door.Name);
}
void Fill(UserInfo &user)
{
    for (FixedText<32> *text : {&user.FirstName, &user.MiddleName, &user.LastName,
                                &user.PhoneNumber, &user.CellPhone, &user.Email})
        Fill(*text);
    user.Ada = user.Exempt = user.ThreatLevel = INT32_MIN;
}
void Fill(CardFormatInfo &format)
{
    Fill(format.Name);
}
void Fill(CardInfo &card)
{
    Fill(card.FormatName);
    Fill(card.CardNumber);
    card.ActDate = card.ExpDate = INT32_MIN;
}
void Fill(AccessLevelInfo &level)
{
    Fill(level.Name);
}
void Fill(ThreatInfo &threat)
{
    Fill(threat.Desc);
}

template <class Record>
void FillRows(Paging &page, RowList<Record> *rows)
{
    Record row;
    Fill(row);
    while (rows->Count() < static_cast<std::int32_t>(RecordedData::Get().Found))
        static_cast<void>(rows->Append(row));
    page.Total = INT32_MIN;
    page.Count = rows->Count();
}

Fields PageFields(const Paging &page)
{
    return {{"Offset", Text(page.Offset)}, {"Limit", Text(page.Limit)}};
}

Fields operator+(Fields sum, const Fields &more)
{
    sum.insert(more.begin(), more.end());
    return sum;
}

Fields DataFields(const UserInfo &user)
{
    return {{"FirstName", Text(user.FirstName)},
            {"MiddleName", Text(user.MiddleName)},
            {"LastName", Text(user.LastName)},
            {"PhoneNumber", Text(user.PhoneNumber)},
            {"CellPhone", Text(user.CellPhone)},
            {"Email", Text(user.Email)},
            {"Ada", Text(user.Ada)},
            {"Exempt", Text(user.Exempt)},
            {"ThreatLevel", Text(user.ThreatLevel)}};
}

Fields DataFields(const CardInfo &card)
{
    return {{"UserNo", Text(card.UserNo)},           {"FormatNo", Text(card.FormatNo)},
            {"CardNumber", Text(card.CardNumber)},   {"KeyNumber", Text(card.KeyNumber)},
            {"CardStatus", Text(card.CardStatus)},   {"CardType", Text(card.CardType)},
            {"NeverExpire", Text(card.NeverExpire)}, {"ActDate", Text(card.ActDate)},
            {"ExpDate", Text(card.ExpDate)}};
}

} // namespace

fuzz::RecordedData &fuzz::RecordedData::Get()
{
    static RecordedData recorded;
    return recorded;
}

DataManager *DataManager::GetInstance()
{
    static auto *const instance = new DataManager;
    return instance;
}

bool DataManager::CheckPassword(const FixedText<32> &userName, const FixedText<68> &password,
                                AuthorityRecord *authority)
{
    const bool isAccepted = Record({{"Username", Text(userName)}, {"Password", Text(password)}});
    if (isAccepted)
        *authority = RecordedData::Get().Rights;
    return isAccepted;
}

void DataManager::WriteAuditLog(const FixedText<32> &address, const FixedText<32> &userName,
                                int eventCode)
{
    Record({{"Address", Text(address)}, {"User", Text(userName)}, {"Event", Text(eventCode)}});
}

bool DataManager::GetEventLog(EventInfo *event)
{
    const bool isFound = Record({{"EventNo", Text(event->EventNo)}});
    Fill(*event);
    return isFound;
}

bool DataManager::GetEventLogEx(EventFilter *filter, RowList<EventInfo> *rows)
{
    const bool isFound =
        Record(PageFields(filter->Page) + Fields{{"EventNo", Text(filter->EventNo)},
                                                 {"FromTime", Text(filter->FromTime)},
                                                 {"ToTime", Text(filter->ToTime)},
                                                 {"DeviceType", Text(filter->DeviceType)},
                                                 {"DevicePort", Text(filter->DevicePort)},
                                                 {"DeviceName", Text(filter->DeviceName)},
                                                 {"EventCode", Text(filter->EventCode)},
                                                 {"EventDesc", Text(filter->EventDesc)},
                                                 {"CardNo", Text(filter->CardNo)},
                                                 {"UserNo", Text(filter->UserNo)},
                                                 {"UserName", Text(filter->UserName)},
                                                 {"VideoTag", Text(filter->VideoTag)}});
    FillRows(filter->Page, rows);
    return isFound;
}

bool DataManager::GetEventCode(EventCodeInfo *code)
{
    const bool isFound = Record({{"Code", Text(code->Code)}});
    Fill(*code);
    return isFound;
}

bool DataManager::GetEventCodeEx(EventCodeFilter *filter, RowList<EventCodeInfo> *rows)
{
    const bool isFound = Record(PageFields(filter->Page) +
                                Fields{{"Code", Text(filter->Code)}, {"Desc", Text(filter->Desc)}});
    FillRows(filter->Page, rows);
    return isFound;
}

bool DataManager::GetLiveVideoInfo(VideoInfo *video)
{
    const bool isFound = Record({{"DoorNo", Text(video->DoorNo)}});
    Fill(*video);
    return isFound;
}

bool DataManager::GetPlayVideoInfo(VideoInfo *video)
{
    const bool isFound =
        Record({{"VideoTag", Text(video->VideoTag)}, {"EventTime", Text(video->EventTime)}});
    Fill(*video);
    return isFound;
}

bool DataManager::GetDoorInfo(DoorInfo *door)
{
    const bool isFound = Record({{"DoorNo", Text(door->DoorNo)}});
    Fill(*door);
    return isFound;
}

bool DataManager::GetDoorInfoEx(DoorFilter *filter, RowList<DoorInfo> *rows)
{
    const bool isFound = Record(PageFields(filter->Page) + Fields{{"DoorNo", Text(filter->DoorNo)},
                                                                  {"Name", Text(filter->Name)}});
    FillRows(filter->Page, rows);
    return isFound;
}

bool DataManager::GetDoorLock(std::int32_t doorNo, std::int32_t *status)
{
    *status = INT32_MIN;
    return Record({{"Port", Text(doorNo)}});
}

bool DataManager::SetDoorLock(std::int32_t doorNo, std::int32_t control)
{
    return Record({{"Port", Text(doorNo)}, {"Control", Text(control)}});
}

bool DataManager::GetAuxOutput(std::int32_t outputNo, std::int32_t *status)
{
    *status = INT32_MIN;
    return Record({{"Port", Text(outputNo)}});
}

bool DataManager::SetAuxOutput(std::int32_t outputNo, std::int32_t control)
{
    return Record({{"Port", Text(outputNo)}, {"Control", Text(control)}});
}

bool DataManager::GetUserInfo(UserInfo *user)
{
    const bool isFound = Record({{"UserNo", Text(user->UserNo)}});
    Fill(*user);
    return isFound;
}

bool DataManager::GetUserInfoEx(UserFilter *filter, RowList<UserInfo> *rows)
{
    const bool isFound = Record(PageFields(filter->Page) + DataFields(filter->User) +
                                Fields{{"UserNo", Text(filter->User.UserNo)}});
    FillRows(filter->Page, rows);
    return isFound;
}

bool DataManager::SetUserInfo(const UserInfo &user)
{
    return Record(DataFields(user) + Fields{{"UserNo", Text(user.UserNo)}});
}

bool DataManager::AddUserInfo(const UserInfo &user)
{
    return Record(DataFields(user));
}

bool DataManager::DelUserInfo(const UserInfo &user)
{
    return Record({{"UserNo", Text(user.UserNo)}});
}

bool DataManager::GetUserImage(UserImage *image)
{
    const bool isFound = Record({{"UserNo", Text(image->UserNo)}});
    image->FileName.Assign(RecordedData::Get().Found > 1 ? fuzz::kStoredImage
                                                         : fuzz::kMissingImage);
    return isFound;
}

bool DataManager::SetUserImage(const UserImage &image)
{
    return Record({{"UserNo", Text(image.UserNo)}, {"FileName", Text(image.FileName)}});
}

bool DataManager::GetCardFormat(CardFormatInfo *format)
{
    const bool isFound = Record({{"FormatNo", Text(format->FormatNo)}});
    Fill(*format);
    return isFound;
}

bool DataManager::GetCardFormatEx(Paging *page, RowList<CardFormatInfo> *rows)
{
    const bool isFound = Record(PageFields(*page));
    FillRows(*page, rows);
    return isFound;
}

bool DataManager::GetCardInfo(CardInfo *card)
{
    const bool isFound = Record({{"CardNo", Text(card->No)}});
    Fill(*card);
    return isFound;
}

bool DataManager::GetCardInfoEx(CardFilter *filter, RowList<CardInfo> *rows)
{
    const bool isFound =
        Record(PageFields(filter->Page) + Fields{{"UserNo", Text(filter->UserNo)}});
    FillRows(filter->Page, rows);
    return isFound;
}

bool DataManager::SetCardInfo(const CardInfo &card)
{
    return Record(DataFields(card) + Fields{{"CardNo", Text(card.No)}});
}

bool DataManager::AddCardInfo(const CardInfo &card)
{
    return Record(DataFields(card));
}

bool DataManager::DelCardInfo(const CardInfo &card)
{
    return Record({{"CardNo", Text(card.No)}});
}

bool DataManager::GetAccessLevel(AccessLevelInfo *level)
{
    const bool isFound =
        Record({{"SelectType", Text(level->SelectType)}, {"LevelNo", Text(level->LevelNo)}});
    Fill(*level);
    return isFound;
}

bool DataManager::GetAccessLevelEx(std::int32_t selectType, Paging *page,
                                   RowList<AccessLevelInfo> *rows)
{
    const bool isFound = Record(PageFields(*page) + Fields{{"SelectType", Text(selectType)}});
    FillRows(*page, rows);
    return isFound;
}

bool DataManager::GetCardAccessLevel(CardAccessLevel *levels)
{
    const bool isFound = Record({{"CardNo", Text(levels->CardNo)}});
    // More numbers than an answer can hold.
    std::string list;
    while (list.size() < kLevelListSize)
        list += (list.empty() ? "" : " ") + std::to_string(INT32_MAX);
    levels->AccessLevelNo.Assign(list.substr(0, list.rfind(' ')));
    levels->SelectType = INT32_MIN;
    return isFound;
}

bool DataManager::SetCardAccessLevel(const CardAccessLevel &levels)
{
    return Record({{"CardNo", Text(levels.CardNo)},
                   {"SelectType", Text(levels.SelectType)},
                   {"AccessLevelNo", Text(levels.AccessLevelNo)}});
}

bool DataManager::GetThreatInfo(ThreatInfo *threat)
{
    const bool isFound = Record({{"Level", Text(threat->Level)}});
    Fill(*threat);
    return isFound;
}

bool DataManager::GetThreatInfoEx(Paging *page, RowList<ThreatInfo> *rows)
{
    const bool isFound = Record(PageFields(*page));
    FillRows(*page, rows);
    return isFound;
}

bool DataManager::GetThreatLevel(std::int32_t *level)
{
    *level = INT32_MIN;
    return Record({});
}

bool DataManager::SetThreatLevel(std::int32_t level)
{
    return Record({{"ThreatLevel", Text(level)}});
}

} // namespace nimbra
