#include <algorithm>
#include <array>

#include <nimbra-client/CommandSchema.h>
#include <strings.h>

namespace nimbra::client {

namespace {

constexpr FieldKind kNumber = FieldKind::Number;
constexpr FieldKind kText = FieldKind::Text;

// clang-format off
constexpr std::array<Field, 3> kList{{{"Total", kNumber}, {"Offset", kNumber}, {"Count", kNumber}}};
constexpr std::array<Field, 1> kHello{{{"Key", kNumber}}};
constexpr std::array<Field, 11> kEvent{{
    {"EventNo", kNumber}, {"EventTime", FieldKind::Time}, {"DeviceType", kNumber},
    {"DevicePort", kNumber}, {"DeviceName", kText}, {"EventCode", kNumber}, {"EventDesc", kText},
    {"CardNo", kNumber}, {"UserNo", kNumber}, {"UserName", kText}, {"VideoTag", kNumber},
}};
constexpr std::array<Field, 2> kEventCode{{{"Code", kNumber}, {"Desc", kText}}};
constexpr std::array<Field, 8> kVideo{{
    {"Name", kText}, {"Type", kNumber}, {"Address", kText}, {"Port", kNumber},
    {"Username", kText}, {"Password", kText}, {"Channel", kNumber}, {"Url", kText},
}};
constexpr std::array<Field, 3> kDoor{{{"DoorNo", kNumber}, {"Name", kText}, {"Status", kNumber}}};
constexpr std::array<Field, 1> kStatus{{{"Status", kNumber}}};
constexpr std::array<Field, 10> kUser{{
    {"UserNo", kNumber}, {"FirstName", kText}, {"MiddleName", kText}, {"LastName", kText},
    {"PhoneNumber", kText}, {"CellPhone", kText}, {"Email", kText}, {"Ada", kNumber},
    {"Exempt", kNumber}, {"ThreatLevel", kNumber},
}};
constexpr std::array<Field, 2> kPhoto{{{"FileName", kText}, {"Size", kNumber}}};
constexpr std::array<Field, 3> kFormat{{
    {"FormatNo", kNumber}, {"Name", kText}, {"Default", kNumber},
}};
constexpr std::array<Field, 11> kCard{{
    {"CardNo", kNumber}, {"UserNo", kNumber}, {"FormatNo", kNumber}, {"FormatName", kText},
    {"CardNumber", kText}, {"KeyNumber", kNumber}, {"CardStatus", kNumber}, {"CardType", kNumber},
    {"NeverExpire", kNumber}, {"ActDate", FieldKind::Date}, {"ExpDate", FieldKind::Date},
}};
constexpr std::array<Field, 2> kGroup{{{"LevelNo", kNumber}, {"Name", kText}}};
constexpr std::array<Field, 3> kLevel{{
    {"SelectType", kNumber}, {"LevelNo", kNumber}, {"Name", kText},
}};
constexpr std::array<Field, 2> kCardLevels{{{"SelectType", kNumber}, {"AccessLevelNo", FieldKind::List}}};
constexpr std::array<Field, 2> kThreat{{{"Level", kNumber}, {"Desc", kText}}};
constexpr std::array<Field, 1> kThreatInForce{{{"ThreatLevel", kNumber}}};

constexpr std::array<CommandSchema, 38> kCommandSchemas{{
    {"Hello", kHello, {}, Paging::None},
    {"Login", {}, {}, Paging::None},
    {"Heartbeat", {}, {}, Paging::None},
    {"SetEvent", {}, {}, Paging::None},
    {"GetEventLog", kEvent, {}, Paging::None},
    {"GetEventLogEx", kList, kEvent, Paging::NewestFirst},
    {"GetEventCode", kEventCode, {}, Paging::None},
    {"GetEventCodeEx", kList, kEventCode, Paging::Pages},
    {"GetLiveVideoInfo", kVideo, {}, Paging::None},
    {"GetPlayVideoInfo", kVideo, {}, Paging::None},
    {"GetDoorInfo", kDoor, {}, Paging::None},
    {"GetDoorInfoEx", kList, kDoor, Paging::Pages},
    {"GetUserInfo", kUser, {}, Paging::None},
    {"GetUserInfoEx", kList, kUser, Paging::Pages},
    {"SetUserInfo", {}, {}, Paging::None},
    {"AddUserInfo", {}, {}, Paging::None},
    {"DelUserInfo", {}, {}, Paging::None},
    {"GetUserImage", kPhoto, {}, Paging::None},
    {"SetUserImage", {}, {}, Paging::None},
    {"GetCardFormat", kFormat, {}, Paging::None},
    {"GetCardFormatEx", kList, kFormat, Paging::AllAtOnce},
    {"GetCardInfo", kCard, {}, Paging::None},
    {"GetCardInfoEx", kList, kCard, Paging::Pages},
    {"SetCardInfo", {}, {}, Paging::None},
    {"AddCardInfo", {}, {}, Paging::None},
    {"DelCardInfo", {}, {}, Paging::None},
    {"GetAccessLevel", kGroup, {}, Paging::None},
    {"GetAccessLevelEx", kList, kLevel, Paging::AllAtOnce},
    {"GetCardAccessLevel", kCardLevels, {}, Paging::None},
    {"SetCardAccessLevel", {}, {}, Paging::None},
    {"GetThreatInfo", kThreat, {}, Paging::None},
    {"GetThreatInfoEx", kList, kThreat, Paging::AllAtOnce},
    {"GetDoorLock", kStatus, {}, Paging::None},
    {"SetDoorLock", {}, {}, Paging::None},
    {"GetAuxOutput", kStatus, {}, Paging::None},
    {"SetAuxOutput", {}, {}, Paging::None},
    {"GetThreatLevel", kThreatInForce, {}, Paging::None},
    {"SetThreatLevel", {}, {}, Paging::None},
}};
// clang-format on

} // namespace

std::span<const CommandSchema> CommandSchemas()
{
    return kCommandSchemas;
}

const CommandSchema *FindCommandSchema(std::string_view word)
{
    const std::string name(word);
    const auto *const found = std::find_if(
        kCommandSchemas.begin(), kCommandSchemas.end(), [&name](const CommandSchema &schema) {
            return strcasecmp(schema.Word.data(), name.c_str()) == 0;
        });
    return found == kCommandSchemas.end() ? nullptr : found;
}

} // namespace nimbra::client
