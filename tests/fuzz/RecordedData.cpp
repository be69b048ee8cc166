#include "fuzz/RecordedData.h"

#include "data/DataManager.h"
#include "fuzz/Finding.h"

namespace nimbra {

namespace {

using fuzz::Fields;
using fuzz::RecordedData;
using fuzz::Value;

Value Passed(std::int32_t number)
{
    return Value(number);
}
template <std::size_t N>
Value Passed(const FixedText<N> &text)
{
    return Value(RecordedData::Get().Keep(text.View()));
}

/// Records a call of the calling method; returns whether it succeeds.
bool Record(const Fields &fields, CallPlace place = CallPlace::Here())
{
    RecordedData &recorded = RecordedData::Get();
    recorded.AddCall({place.Method, fields});
    return recorded.Found > 0;
}

/// Fills a text completely, so that answers have their maximum length.
template <std::size_t N>
void Fill(FixedText<N> &text)
{
    static const std::string full(N, 'x');
    text.Assign(full);
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
    static const std::string url = "rtsp://" + std::string(249, 'x');
    video.Url.Assign(url);
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
    return {{"Offset", Passed(page.Offset)}, {"Limit", Passed(page.Limit)}};
}

Fields operator+(Fields sum, const Fields &more)
{
    for (const Fields::Field &field : more)
        sum.Add(field.Name, field.Value);
    return sum;
}

Fields DataFields(const UserInfo &user)
{
    return {{"FirstName", Passed(user.FirstName)},
            {"MiddleName", Passed(user.MiddleName)},
            {"LastName", Passed(user.LastName)},
            {"PhoneNumber", Passed(user.PhoneNumber)},
            {"CellPhone", Passed(user.CellPhone)},
            {"Email", Passed(user.Email)},
            {"Ada", Passed(user.Ada)},
            {"Exempt", Passed(user.Exempt)},
            {"ThreatLevel", Passed(user.ThreatLevel)}};
}

Fields DataFields(const CardInfo &card)
{
    return {{"UserNo", Passed(card.UserNo)},           {"FormatNo", Passed(card.FormatNo)},
            {"CardNumber", Passed(card.CardNumber)},   {"KeyNumber", Passed(card.KeyNumber)},
            {"CardStatus", Passed(card.CardStatus)},   {"CardType", Passed(card.CardType)},
            {"NeverExpire", Passed(card.NeverExpire)}, {"ActDate", Passed(card.ActDate)},
            {"ExpDate", Passed(card.ExpDate)}};
}

} // namespace

fuzz::RecordedData &fuzz::RecordedData::Get()
{
    static RecordedData recorded;
    return recorded;
}

void fuzz::RecordedData::ForgetCalls()
{
    calls_.clear();
    textSize_ = 0;
}

std::string_view fuzz::RecordedData::Keep(std::string_view text)
{
    Require(text.size() <= texts_.size() - textSize_, "more text than a command has");
    char *const kept = texts_.data() + textSize_;
    text.copy(kept, text.size());
    textSize_ += text.size();
    return {kept, text.size()};
}

DataManager *DataManager::GetInstance()
{
    static auto *const instance = new DataManager;
    return instance;
}

bool DataManager::CheckPassword(const FixedText<32> &userName, const FixedText<68> &password,
                                AuthorityRecord *authority)
{
    const bool isAccepted =
        Record({{"Username", Passed(userName)}, {"Password", Passed(password)}});
    if (isAccepted)
        *authority = RecordedData::Get().Rights;
    return isAccepted;
}

void DataManager::WriteAuditLog(const FixedText<32> &address, const FixedText<32> &userName,
                                int eventCode)
{
    Record(
        {{"Address", Passed(address)}, {"User", Passed(userName)}, {"Event", Passed(eventCode)}});
}

bool DataManager::GetEventLog(EventInfo *event)
{
    const bool isFound = Record({{"EventNo", Passed(event->EventNo)}});
    Fill(*event);
    return isFound;
}

bool DataManager::GetEventLogEx(EventFilter *filter, RowList<EventInfo> *rows)
{
    const bool isFound =
        Record(PageFields(filter->Page) + Fields{{"EventNo", Passed(filter->EventNo)},
                                                 {"FromTime", Passed(filter->FromTime)},
                                                 {"ToTime", Passed(filter->ToTime)},
                                                 {"DeviceType", Passed(filter->DeviceType)},
                                                 {"DevicePort", Passed(filter->DevicePort)},
                                                 {"DeviceName", Passed(filter->DeviceName)},
                                                 {"EventCode", Passed(filter->EventCode)},
                                                 {"EventDesc", Passed(filter->EventDesc)},
                                                 {"CardNo", Passed(filter->CardNo)},
                                                 {"UserNo", Passed(filter->UserNo)},
                                                 {"UserName", Passed(filter->UserName)},
                                                 {"VideoTag", Passed(filter->VideoTag)}});
    FillRows(filter->Page, rows);
    return isFound;
}

bool DataManager::GetEventCode(EventCodeInfo *code)
{
    const bool isFound = Record({{"Code", Passed(code->Code)}});
    Fill(*code);
    return isFound;
}

bool DataManager::GetEventCodeEx(EventCodeFilter *filter, RowList<EventCodeInfo> *rows)
{
    const bool isFound = Record(PageFields(filter->Page) + Fields{{"Code", Passed(filter->Code)},
                                                                  {"Desc", Passed(filter->Desc)}});
    FillRows(filter->Page, rows);
    return isFound;
}

bool DataManager::GetLiveVideoInfo(VideoInfo *video)
{
    const bool isFound = Record({{"DoorNo", Passed(video->DoorNo)}});
    Fill(*video);
    return isFound;
}

bool DataManager::GetPlayVideoInfo(VideoInfo *video)
{
    const bool isFound =
        Record({{"VideoTag", Passed(video->VideoTag)}, {"EventTime", Passed(video->EventTime)}});
    Fill(*video);
    return isFound;
}

bool DataManager::GetDoorInfo(DoorInfo *door)
{
    const bool isFound = Record({{"DoorNo", Passed(door->DoorNo)}});
    Fill(*door);
    return isFound;
}

bool DataManager::GetDoorInfoEx(DoorFilter *filter, RowList<DoorInfo> *rows)
{
    const bool isFound =
        Record(PageFields(filter->Page) +
               Fields{{"DoorNo", Passed(filter->DoorNo)}, {"Name", Passed(filter->Name)}});
    FillRows(filter->Page, rows);
    return isFound;
}

bool DataManager::GetDoorLock(std::int32_t doorNo, std::int32_t *status)
{
    *status = INT32_MIN;
    return Record({{"Port", Passed(doorNo)}});
}

bool DataManager::SetDoorLock(std::int32_t doorNo, std::int32_t control)
{
    return Record({{"Port", Passed(doorNo)}, {"Control", Passed(control)}});
}

bool DataManager::GetAuxOutput(std::int32_t outputNo, std::int32_t *status)
{
    *status = INT32_MIN;
    return Record({{"Port", Passed(outputNo)}});
}

bool DataManager::SetAuxOutput(std::int32_t outputNo, std::int32_t control)
{
    return Record({{"Port", Passed(outputNo)}, {"Control", Passed(control)}});
}

bool DataManager::GetUserInfo(UserInfo *user)
{
    const bool isFound = Record({{"UserNo", Passed(user->UserNo)}});
    Fill(*user);
    return isFound;
}

bool DataManager::GetUserInfoEx(UserFilter *filter, RowList<UserInfo> *rows)
{
    const bool isFound = Record(PageFields(filter->Page) + DataFields(filter->User) +
                                Fields{{"UserNo", Passed(filter->User.UserNo)}});
    FillRows(filter->Page, rows);
    return isFound;
}

bool DataManager::SetUserInfo(const UserInfo &user)
{
    return Record(DataFields(user) + Fields{{"UserNo", Passed(user.UserNo)}});
}

bool DataManager::AddUserInfo(const UserInfo &user)
{
    return Record(DataFields(user));
}

bool DataManager::DelUserInfo(const UserInfo &user)
{
    return Record({{"UserNo", Passed(user.UserNo)}});
}

bool DataManager::GetUserImage(UserImage *image)
{
    const bool isFound = Record({{"UserNo", Passed(image->UserNo)}});
    image->FileName.Assign(RecordedData::Get().Found > 1 ? fuzz::kStoredImage
                                                         : fuzz::kMissingImage);
    return isFound;
}

bool DataManager::SetUserImage(const UserImage &image)
{
    return Record({{"UserNo", Passed(image.UserNo)}, {"FileName", Passed(image.FileName)}});
}

bool DataManager::GetCardFormat(CardFormatInfo *format)
{
    const bool isFound = Record({{"FormatNo", Passed(format->FormatNo)}});
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
    const bool isFound = Record({{"CardNo", Passed(card->No)}});
    Fill(*card);
    return isFound;
}

bool DataManager::GetCardInfoEx(CardFilter *filter, RowList<CardInfo> *rows)
{
    const bool isFound =
        Record(PageFields(filter->Page) + Fields{{"UserNo", Passed(filter->UserNo)}});
    FillRows(filter->Page, rows);
    return isFound;
}

bool DataManager::SetCardInfo(const CardInfo &card)
{
    return Record(DataFields(card) + Fields{{"CardNo", Passed(card.No)}});
}

bool DataManager::AddCardInfo(const CardInfo &card)
{
    return Record(DataFields(card));
}

bool DataManager::DelCardInfo(const CardInfo &card)
{
    return Record({{"CardNo", Passed(card.No)}});
}

bool DataManager::GetAccessLevel(AccessLevelInfo *level)
{
    const bool isFound =
        Record({{"SelectType", Passed(level->SelectType)}, {"LevelNo", Passed(level->LevelNo)}});
    Fill(*level);
    return isFound;
}

bool DataManager::GetAccessLevelEx(std::int32_t selectType, Paging *page,
                                   RowList<AccessLevelInfo> *rows)
{
    const bool isFound = Record(PageFields(*page) + Fields{{"SelectType", Passed(selectType)}});
    FillRows(*page, rows);
    return isFound;
}

bool DataManager::GetCardAccessLevel(CardAccessLevel *levels)
{
    const bool isFound = Record({{"CardNo", Passed(levels->CardNo)}});
    // More numbers than an answer can hold.
    static const std::string list = [] {
        std::string numbers = std::to_string(INT32_MAX);
        while (numbers.size() < kLevelListSize)
            numbers += " " + std::to_string(INT32_MAX);
        return numbers.substr(0, numbers.rfind(' '));
    }();
    levels->AccessLevelNo.Assign(list);
    levels->SelectType = INT32_MIN;
    return isFound;
}

bool DataManager::SetCardAccessLevel(const CardAccessLevel &levels)
{
    return Record({{"CardNo", Passed(levels.CardNo)},
                   {"SelectType", Passed(levels.SelectType)},
                   {"AccessLevelNo", Passed(levels.AccessLevelNo)}});
}

bool DataManager::GetThreatInfo(ThreatInfo *threat)
{
    const bool isFound = Record({{"Level", Passed(threat->Level)}});
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
    return Record({{"ThreatLevel", Passed(level)}});
}

} // namespace nimbra
