#include "panel-check/Schema.h"

#include "base/PanelConstants.h"

namespace nimbra::check {

namespace {

constexpr Column kCloud[] = {{"Enabled"},  {"ServerIP"},  {"Port"},     {"DevicePort"},
                             {"DeviceID"}, {"StartTime"}, {"CheckTime"}};
constexpr Column kController[] = {{"No"}, {"ID"}, {"Password"}};
constexpr Column kWebUser[] = {{"ID"}, {"UserRole"}, {"Password"}};
constexpr Column kUserRoleTable[] = {{"UserRole"}, {"FormIndex"}, {"Authority"}};
constexpr Column kDBQueryInfo[] = {{"Idseq"}, {"QueryData"}, {"DbKind"}};
constexpr Column kUser[] = {{"Site"},
                            {"No", Need::Indexed},
                            {"FirstName"},
                            {"MiddleName"},
                            {"LastName"},
                            {"Phone"},
                            {"CellPhone"},
                            {"Email"},
                            {"Ada"},
                            {"Exempt"},
                            {"ThreatLevel"},
                            {"ImageFile"},
                            {"PhoneNumber", Need::Optional}};
constexpr Column kCard[] = {{"Site"},
                            {"No", Need::Indexed},
                            {"UserNo", Need::Indexed},
                            {"CardFormatNo"},
                            {"CardNo", Need::Indexed},
                            {"KeyNumber"},
                            {"CardStatus"},
                            {"CardType"},
                            {"NeverExpire"},
                            {"ActDate"},
                            {"ExpDate"},
                            {"SelectType"}};
constexpr Column kCardFormat[] = {{"No", Need::Indexed}, {"Name"}, {"IsDefault"}};
constexpr Column kCardAccessLevel[] = {
    {"Site"}, {"No", Need::Indexed}, {"CardNo", Need::Indexed}, {"AccessLevelNo"}};
constexpr Column kAccessLevel[] = {{"No"}, {"Name"}};
constexpr Column kGroupTable[] = {{"GroupKind"}, {"No"}, {"Name"}};
constexpr Column kDoor[] = {{"No"}, {"Name"}, {"Disable"}, {"DoorContactState"}};
constexpr Column kRelayStatus[] = {{"Type"}, {"No"}, {"RelayOn"}};
constexpr Column kEventCode[] = {{"EventCode", Need::Indexed}, {"Name"}};
constexpr Column kThreatLevel[] = {{"Level"}, {"ThreatName"}};
constexpr Column kThreat[] = {{"ThreatStatus"}};
constexpr Column kDvr[] = {{"No"},       {"Name"},   {"Type"},        {"IP"},
                           {"LivePort"}, {"HttpID"}, {"HttpPassword"}};
constexpr Column kDvrChannel[] = {{"No"}, {"DvrNo"}, {"DoorNo"}, {"Channel"}, {"CameraID"}};
constexpr Column kLog[] = {{"No", Need::Indexed},
                           {"Date", Need::Indexed},
                           {"Type"},
                           {"Port"},
                           {"DeviceName"},
                           {"EventCode"},
                           {"CardNo"},
                           {"UserNo"},
                           {"UserName"},
                           {"Res1"}};
constexpr Column kNetwork[] = {{"IPAddress"}, {"Model"}, {"Type"}};

constexpr Table kTables[] = {
    {kMainDatabase, "Cloud", kCloud, "the agent does not start, or does not report itself"},
    {kMainDatabase, "Controller", kController, "the panel's own account cannot log in"},
    {kMainDatabase, "WebUser", kWebUser, "web users cannot log in"},
    {kMainDatabase, "UserRoleTable", kUserRoleTable, "web users have no rights"},
    {kMainDatabase, "DBQueryInfo", kDBQueryInfo, "the panel is not notified of changes"},
    {kMainDatabase, "User", kUser, "requests for users fail"},
    {kMainDatabase, "Card", kCard, "requests for cards fail"},
    {kMainDatabase, "CardFormat", kCardFormat, "requests for cards and card formats fail"},
    {kMainDatabase, "CardAccessLevel", kCardAccessLevel,
     "the access levels of cards are not found, and no card or user can be deleted"},
    {kMainDatabase, "AccessLevel", kAccessLevel, "access levels are not found"},
    {kMainDatabase, "GroupTable", kGroupTable, "groups of access levels are not found"},
    {kMainDatabase, "Door", kDoor, "requests for doors fail"},
    {kMainDatabase, "RelayStatus", kRelayStatus, "the state of doors and outputs is not known"},
    {kMainDatabase, "EventCode", kEventCode, "requests for events and event codes fail"},
    {kMainDatabase, "ThreatLevel", kThreatLevel, "threat levels are not found"},
    {kMainDatabase, "Threat", kThreat, "the threat level can be neither read nor set"},
    {kMainDatabase, "DVR", kDvr, "requests for video fail"},
    {kMainDatabase, "DVRChannel", kDvrChannel, "requests for video fail"},
    {kLogDatabase, "Log", kLog, "requests for events fail"},
    {kNetworkDatabase, "Network", kNetwork, "the agent does not start"},
};

} // namespace

std::span<const Table> RequiredTables()
{
    return kTables;
}

} // namespace nimbra::check
