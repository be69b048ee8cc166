#include "client/RecordPairs.h"

#include "data/AccessLevelInfo.h"
#include "data/CardInfo.h"
#include "data/DoorInfo.h"
#include "data/EventCodeInfo.h"
#include "data/EventInfo.h"
#include "data/ThreatInfo.h"
#include "data/UserInfo.h"
#include "data/VideoInfo.h"
#include "protocol/DateTime.h"
#include "protocol/Line.h"

namespace nimbra {

void PutPairs(const EventInfo &event, Line *line)
{
    line->Pair("EventNo", event.EventNo)
        .Pair("EventTime", TimeToString(event.Date))
        .Pair("DeviceType", event.DeviceType)
        .Pair("DevicePort", event.DevicePort)
        .Pair("DeviceName", event.DeviceName)
        .Pair("EventCode", event.EventCode)
        .Pair("EventDesc", event.EventDesc)
        .Pair("CardNo", event.CardNo)
        .Pair("UserNo", event.UserNo)
        .Pair("UserName", event.UserName)
        .Pair("VideoTag", event.VideoTag);
}

void PutPairs(const EventCodeInfo &code, Line *line)
{
    line->Pair("Code", code.Code).Pair("Desc", code.Desc);
}

void PutPairs(const VideoInfo &video, Line *line)
{
    line->Pair("Name", video.Name)
        .Pair("Type", video.Type)
        .Pair("Address", video.Address)
        .Pair("Port", video.Port)
        .Pair("Username", video.Username)
        .Pair("Password", video.Password)
        .Pair("Channel", video.Channel)
        // The address holds "&" and "=" of its own.
        .QuotedPair("Url", video.Url.View());
}

void PutPairs(const DoorInfo &door, Line *line)
{
    line->Pair("DoorNo", door.DoorNo).Pair("Name", door.Name).Pair("Status", door.Status);
}

void PutPairs(const UserInfo &user, Line *line)
{
    line->Pair("UserNo", user.UserNo)
        .Pair("FirstName", user.FirstName)
        .Pair("MiddleName", user.MiddleName)
        .Pair("LastName", user.LastName)
        .Pair("PhoneNumber", user.PhoneNumber)
        .Pair("CellPhone", user.CellPhone)
        .Pair("Email", user.Email)
        .Pair("Ada", user.Ada)
        .Pair("Exempt", user.Exempt)
        .Pair("ThreatLevel", user.ThreatLevel);
}

void PutPairs(const CardFormatInfo &format, Line *line)
{
    line->Pair("FormatNo", format.FormatNo)
        .Pair("Name", format.Name)
        .Pair("Default", format.Default);
}

void PutPairs(const CardInfo &card, Line *line)
{
    line->Pair("CardNo", card.No)
        .Pair("UserNo", card.UserNo)
        .Pair("FormatNo", card.FormatNo)
        .Pair("FormatName", card.FormatName)
        .Pair("CardNumber", card.CardNumber)
        .Pair("KeyNumber", card.KeyNumber)
        .Pair("CardStatus", card.CardStatus)
        .Pair("CardType", card.CardType)
        .Pair("NeverExpire", card.NeverExpire)
        .Pair("ActDate", DateToString(card.ActDate))
        .Pair("ExpDate", DateToString(card.ExpDate));
}

void PutPairs(const AccessLevelInfo &level, Line *line)
{
    line->Pair("SelectType", level.SelectType)
        .Pair("LevelNo", level.LevelNo)
        .Pair("Name", level.Name);
}

void PutPairs(const ThreatInfo &threat, Line *line)
{
    line->Pair("Level", threat.Level).Pair("Desc", threat.Desc);
}

} // namespace nimbra
