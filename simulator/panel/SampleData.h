#pragma once

#include <array>
#include <string>

/// What the sample panel holds. Everything is fixed, or a pure function of a row's number, so that
/// a test can work out each row of a panel of any size.
///
/// Blanks: in a row of an odd number, an empty text or a zero of a column that may be NULL is
/// stored as NULL; in a row of an even number it is stored as it is.
namespace nimbra::panel {

struct PanelSize
{
    int Events = 60;
    int Users = 12;
    int Cards = 16;
    int Doors = 8;
};

/// An account that can log in to the agent.
struct SampleLogin
{
    const char *Id;
    const char *Password;
};

/// The controller's own account: every right.
inline constexpr SampleLogin kController{"admin", "admin1234"};
/// Web user of the same name as the controller's account: the rights of the viewer.
inline constexpr SampleLogin kWebAdmin{"admin", "webadmin5678"};
/// Web user with every right that a role can give.
inline constexpr SampleLogin kOperator{"operator", "operate!1"};
/// May view users, cards, formats, access levels, doors, threat levels and the level in force.
inline constexpr SampleLogin kViewer{"viewer", "view4321"};
/// May view doors and do all with locks; nothing else.
inline constexpr SampleLogin kGuard{"guard", "guard2468"};
/// May view and add users and cards, not change or delete them.
inline constexpr SampleLogin kClerk{"clerk", "clerk1357"};
/// Its role has no row in UserRoleTable: no rights.
inline constexpr SampleLogin kNobody{"nobody", "nothing00"};
/// Its role has rows that give nothing, but for a NULL Authority that lets it view card formats.
inline constexpr SampleLogin kOdd{"odd", "odd-one-out"};
/// As the operator, its digest stored in lower-case letters.
inline constexpr SampleLogin kLowerCase{"lowercase", "CaseCase9"};
/// Web user whose stored password is NULL: no password fits.
inline constexpr SampleLogin kLocked{"locked", ""};

enum class Role
{
    Operator = 1,
    Viewer = 2,
    Nobody = 3,
    Guard = 4,
    Odd = 5,
    Clerk = 6
};

inline constexpr char kMacAddress[] = "00:1a:2b:3c:4d:5e"; ///< as the panel's ifconfig prints it
inline constexpr char kPanelAddress[] = "192.168.77.10";   ///< Network.IPAddress
inline constexpr int kModel = 11;                          ///< Network.Model
inline constexpr int kModelSize = 64;                      ///< Network.Type
inline constexpr int kDevicePort = 9000;                   ///< Cloud.DevicePort

struct SampleEventCode
{
    int Code;
    const char *Name; ///< nullptr: NULL
};

// clang-format off
/// Event codes, in ascending order.
inline constexpr std::array<SampleEventCode, 38> kEventCodes{{
    {0, "No event"},
    {10001, "Access granted"},
    {10002, "Access granted by threat level exemption"},
    {10003, "Access denied: unknown card"},
    {10004, "Access denied: card expired"},
    {10005, "Access denied: access level"},
    {10006, "Access denied: wrong key number"},
    {10007, "Access granted, door not opened"},
    {10101, "Door opened"},
    {10102, "Door closed"},
    {10103, "Door forced open"},
    {10104, "Door held open"},
    {10105, "Exit button pressed at door"},
    {10201, "Aux input active"},
    {10202, "Aux input restored"},
    {10301, "User added"},
    {10302, "User deleted"},
    {10303, "User changed"},
    {10401, "Card added"},
    {10402, "Card deleted"},
    {10403, "Card changed"},
    {10801, "Threat level schedule started"},
    {10803, "Threat level changed"},
    {11212, "Door unlocked by operator"},
    {11213, "Door locked by operator"},
    {11414, "Aux output switched by schedule"},
    {11415, "Aux output switched by operator"},
    {12001, "AC power lost"},
    {12002, "AC power restored"},
    {12003, "Battery low"},
    {12004, "Cabinet tamper"},
    {12005, "Cabinet tamper restored"},
    {15101, "Panel started"},
    {15102, "Clock set"},
    {15107, "Remote login"},
    {15108, "Remote logout"},
    {20001, "Extended diagnostics: communication with the reader interface board was restored"},
    {20002, nullptr},
}};

/// Threat levels, in ascending order.
inline constexpr std::array<const char *, 5> kThreatLevels{
    "Low", "Guarded", "Elevated", "High", "Severe"};
inline constexpr int kThreatInForce = 1;

struct SampleCardFormat
{
    int No;
    const char *Name;
    int IsDefault;
};
inline constexpr std::array<SampleCardFormat, 4> kCardFormats{{
    {1, "26-bit Wiegand", 1},
    {2, "34-bit Wiegand", 0},
    {3, "37-bit Corporate 1000", 0},
    {4, "Mobile credential", 0},
}};
/// A card whose format has been deleted, so that the agent does not find it; unless the panel has
/// fewer cards.
inline constexpr int kLostFormatCard = 5;
inline constexpr int kLostFormat = 9;

/// Plain access levels, numbered from 1.
inline constexpr std::array<const char *, 5> kAccessLevels{
    "Always", "Office Hours", "Night Shift", "Cleaning", "Server Room Only"};

struct SampleGroup
{
    int Kind; ///< 5: group of access levels
    int No;
    const char *Name;
};
inline constexpr std::array<SampleGroup, 7> kGroups{{
    {1, 1, "Perimeter Doors"},
    {1, 2, "Inner Doors"},
    {3, 1, "Alarm Inputs"},
    {4, 3, "Signal Outputs"},
    {5, 1, "Employees"},
    {5, 2, "Contractors"},
    {5, 3, "Visitors"},
}};

struct SampleRecorder
{
    int No;
    const char *Name;
    int Type;
    const char *Address;
    int LivePort;
    const char *Username;
    const char *Password;
};
/// Recorders, one of each type from 0 to 6.
inline constexpr std::array<SampleRecorder, 7> kRecorders{{
    {1, "Lobby NVR", 0, "192.168.77.101", 554, "stream", "s0-Lobby"},
    {2, "Yard NVR", 1, "192.168.77.102", 554, "stream", "s1-Yard"},
    {3, "Office NVR", 2, "192.168.77.103", 8554, "viewer", "s2-Office"},
    {4, "Dock DVR", 3, "192.168.77.104", 554, "admin", "s3-Dock"},
    {5, "Gate Server", 4, "nvr-gate.local", 554, "gate", "s4-Gate"},
    {6, "Lab NVR", 5, "192.168.77.106", 1554, "lab", "s5-Lab"},
    {7, "Roof DVR", 6, "192.168.77.107", 554, "roof", "s6-Roof"},
}};

struct SampleChannel
{
    int No;
    int RecorderNo;
    int DoorNo; ///< 0: watches no door
    int Channel;
    const char *CameraId;
};
/// Channels: channel n watches door n with the recorder of type n - 1, for doors 1 to 7; a second
/// camera at door 1, and one at no door. Door 8 and up have no camera.
inline constexpr std::array<SampleChannel, 9> kChannels{{
    {1, 1, 1, 1, ""},
    {2, 2, 2, 2, ""},
    {3, 3, 3, 3, ""},
    {4, 4, 4, 1, ""},
    {5, 5, 5, 4, "cam-gate-04"},
    {6, 6, 6, 6, ""},
    {7, 7, 7, 12, ""},
    {8, 3, 1, 8, ""},
    {9, 4, 0, 2, ""},
}};

/// RelayOn of the auxiliary outputs 1 to 4 at the start; the last is stored as NULL.
inline constexpr std::array<int, 4> kAuxOutputs{0, 1, 2, 0};
// clang-format on

/// A row of Log with the description of its code.
struct SampleEvent
{
    int No;
    int Date; ///< seconds since 1970
    int Type; ///< 1 panel, 2 door, 3 auxiliary output, 4 remote client
    int Port;
    std::string DeviceName;
    int EventCode;
    std::string EventDesc;
    int CardNo;
    int UserNo;
    std::string UserName;
    int VideoTag;
};
/// Event 1 and up. The dates rise with the numbers.
[[nodiscard]] SampleEvent ExpectedEvent(int no);

/// A row of User.
struct SampleUser
{
    int No;
    std::string FirstName;
    std::string MiddleName;
    std::string LastName;
    std::string Phone;
    std::string CellPhone;
    std::string Email; ///< longer than 32 bytes for user 9
    int Ada;
    int Exempt;
    int ThreatLevel;
    std::string ImageFile;
};
/// User 1 and up. Only users 1 to 6 name an image: a JPEG, a PNG, the four-character name "a.jp"
/// (a file that exists), "a.jpg" (a JPEG), one whose file is missing, and an empty file.
[[nodiscard]] SampleUser ExpectedUser(int no);

/// A row of Card.
struct SampleCard
{
    int No;
    int UserNo;
    int FormatNo;
    std::string CardNumber;
    int KeyNumber;
    int CardStatus;
    int CardType;
    int NeverExpire;
    int ActDate; ///< seconds since 1970, midnight UTC
    int ExpDate;
    int SelectType; ///< 1 plain levels, 2 groups
    /// Numbers in CardAccessLevel, in the order of its rows; every fourth card has none.
    std::string AccessLevels;
};
/// Card 1 and up; the users own the cards in turn.
[[nodiscard]] SampleCard ExpectedCard(int no, const PanelSize &size);

/// A row of Door with its lock relay.
struct SampleDoor
{
    int No;
    std::string Name;
    bool Disabled;    ///< every fourth door
    int ContactState; ///< 1 for every third door: the lock's relay works the other way round
    bool HasRelay;    ///< false only for door 7
    bool Unlocked;    ///< only doors 2 and 3 at the start
    int RelayOn;
};
/// Door 1 and up.
[[nodiscard]] SampleDoor ExpectedDoor(int no);

} // namespace nimbra::panel
