#include "simulator/panel/SampleData.h"

#include <algorithm>
#include <cstddef>

namespace nimbra::panel {

constexpr int kDay = 86400;
constexpr int kFirstDate = 1767225600; // 2026-01-01 00:00:00 UTC
constexpr int kSecondsBetweenEvents = 97;

// The tables below hold the usual contents of a log: people at doors, now and then the panel.
struct EventKind
{
    int Code;
    int Type;
    bool WithCard;
};
constexpr std::array<EventKind, 16> kEventKinds{{
    {10001, 2, true},
    {10101, 2, false},
    {10102, 2, false},
    {10001, 2, true},
    {10003, 2, false},
    {10005, 2, true},
    {10105, 2, false},
    {10104, 2, false},
    {10001, 2, true},
    {12001, 1, false},
    {12002, 1, false},
    {15107, 4, false},
    {11415, 3, false},
    {10303, 4, false},
    {20001, 1, false},
    {10103, 2, false},
}};

constexpr std::array<const char *, 8> kDoorNames{"Front Entrance", "Lobby",        "Server Room",
                                                 "Loading Dock",   "Parking Gate", "Office West",
                                                 "Office East",    "Roof Hatch"};
constexpr std::array<const char *, 16> kFirstNames{
    "Alice", "Bruno", "Carla", "Dmitri", "Erika", "Farid", "Greta", "Hugo",
    "Ines",  "Jonas", "Keiko", "Liam",   "Maria", "Nadia", "Oscar", "Zoë"};
constexpr std::array<const char *, 11> kLastNames{"Archer", "Baker",   "Conti",  "Duarte",
                                                  "Ekberg", "Fischer", "Garcia", "Hoffmann",
                                                  "Ivanov", "O'Neill", "Müller"};
constexpr int kEventUsers = 12;
constexpr int kEventCards = 16;
constexpr int kEventDoors = 6;

/// The element that the number n falls on, going round the table.
template <typename Table>
static const auto &Pick(const Table &table, int n)
{
    return table[static_cast<std::size_t>(n) % table.size()];
}

static std::string FullName(int userNo)
{
    const SampleUser user = ExpectedUser(userNo);
    return user.FirstName + ' ' + user.LastName;
}

static std::string DescriptionOf(int code)
{
    const auto *const found =
        std::find_if(kEventCodes.begin(), kEventCodes.end(),
                     [code](const SampleEventCode &entry) { return entry.Code == code; });
    return found != kEventCodes.end() && found->Name != nullptr ? found->Name : "";
}

SampleEvent ExpectedEvent(int no)
{
    const EventKind &kind = Pick(kEventKinds, no - 1);
    SampleEvent event{};
    event.No = no;
    event.Date = kFirstDate + no * kSecondsBetweenEvents;
    event.Type = kind.Type;
    event.EventCode = kind.Code;
    event.EventDesc = DescriptionOf(kind.Code);
    switch (kind.Type) {
    case 2:
        event.Port = 1 + no % kEventDoors;
        event.DeviceName = ExpectedDoor(event.Port).Name;
        event.VideoTag = event.Port;
        break;
    case 3:
        event.Port = 1 + no % static_cast<int>(kAuxOutputs.size());
        event.DeviceName = "Aux Output " + std::to_string(event.Port);
        break;
    case 4:
        event.DeviceName = "192.168.77." + std::to_string(20 + no % 200);
        event.UserName = kOperator.Id;
        break;
    default:
        event.DeviceName = "Main Panel";
        break;
    }
    if (kind.WithCard) {
        event.CardNo = 1 + no * 5 % kEventCards;
        event.UserNo = 1 + no * 7 % kEventUsers;
        event.UserName = FullName(event.UserNo);
    }
    return event;
}

static std::string PictureOf(int userNo)
{
    static constexpr std::array<const char *, 6> kPictures{
        "user0001.jpg", "user0002.png", "a.jp", "a.jpg", "missing.jpg", "empty.jpg"};
    const auto index = static_cast<std::size_t>(userNo - 1);
    return index < kPictures.size() ? kPictures[index] : "";
}

SampleUser ExpectedUser(int no)
{
    const std::string number = std::to_string(no);
    SampleUser user{};
    user.No = no;
    user.FirstName = Pick(kFirstNames, no - 1);
    user.MiddleName = no % 5 == 0 ? "M." : "";
    user.LastName = Pick(kLastNames, (no - 1) + (no - 1) / 176);
    user.Phone = no % 3 == 0 ? "" : "555-0100-" + number;
    user.CellPhone = no % 4 == 0 ? "" : "555-0199-" + number;
    user.Email = no == 9 ? "a.rather.long.address.of.a.user@mail.example"
                         : "user" + number + "@nimbra.example";
    user.Ada = no % 6 == 0 ? 1 : 0;
    user.Exempt = no % 7 == 0 ? 1 : 0;
    user.ThreatLevel = no % 4;
    user.ImageFile = PictureOf(no);
    return user;
}

static std::string LevelsOf(int cardNo, std::size_t levels)
{
    std::string list;
    for (int i = 0; i < cardNo % 4; ++i) {
        const std::size_t level = 1 + static_cast<std::size_t>(cardNo + i) % levels;
        list += (list.empty() ? "" : " ") + std::to_string(level);
    }
    return list;
}

SampleCard ExpectedCard(int no, const PanelSize &size)
{
    SampleCard card{};
    card.No = no;
    card.UserNo = 1 + (no - 1) % std::max(size.Users, 1);
    card.FormatNo = no == kLostFormatCard ? kLostFormat : Pick(kCardFormats, no - 1).No;
    card.CardNumber = std::to_string(10000000 + no * 37);
    card.KeyNumber = no % 2 == 0 ? 1000 + no % 9000 : 0;
    card.CardStatus = no % 10 == 0 ? 2 : 0;
    card.CardType = no % 3;
    card.NeverExpire = no % 2;
    card.ActDate = kFirstDate + no % 365 * kDay;
    card.ExpDate = card.NeverExpire != 0 ? 0 : card.ActDate + 730 * kDay;
    card.SelectType = no % 5 == 0 ? 2 : 1;
    constexpr std::size_t kAccessGroups = 3;
    card.AccessLevels = LevelsOf(no, card.SelectType == 2 ? kAccessGroups : kAccessLevels.size());
    return card;
}

SampleDoor ExpectedDoor(int no)
{
    SampleDoor door{};
    door.No = no;
    const auto index = static_cast<std::size_t>(no - 1);
    door.Name = index < kDoorNames.size() ? kDoorNames[index] : "Door " + std::to_string(no);
    door.Disabled = no % 4 == 0;
    door.ContactState = no % 3 == 0 ? 1 : 0;
    door.HasRelay = no != 7;
    door.Unlocked = no == 2 || no == 3;
    door.RelayOn = door.Unlocked == (door.ContactState == 0) ? 1 : 0;
    return door;
}

} // namespace nimbra::panel
