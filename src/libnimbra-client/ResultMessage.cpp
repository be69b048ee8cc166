#include <array>

#include <nimbra-client/ResultMessage.h>

namespace nimbra::client {

namespace {

struct Failure
{
    std::string_view Word;
    std::string_view Meaning;
};

/// The meaning of Result=1 for each command: the protocol has one code for all failures.
constexpr std::array<Failure, 29> kFailures{{
    {"Login", "The user name or the password is wrong, or the panel cannot read its database."},
    {"GetEventLog", "The panel has no such event, or cannot read its database."},
    {"GetEventLogEx", "The panel has no such events, or cannot read its database."},
    {"GetEventCode", "The panel has no such event code, or cannot read its database."},
    {"GetEventCodeEx", "The panel has no such event codes, or cannot read its database."},
    {"GetLiveVideoInfo", "No camera watches this door, or the panel cannot read its database."},
    {"GetPlayVideoInfo", "The panel has no recording of this event, or cannot read its database."},
    {"GetDoorInfo", "The panel has no such door, or it is disabled, or the panel cannot read its "
                    "database."},
    {"GetDoorInfoEx", "The panel has no such doors, or cannot read its database."},
    {"GetUserInfo", "The panel has no such user, or cannot read its database."},
    {"GetUserInfoEx", "The panel has no such users, or cannot read its database."},
    {"SetUserInfo", "The panel refused a text, or cannot write its database."},
    {"AddUserInfo", "The panel refused a text, or cannot write its database."},
    {"GetUserImage", "The user has no photo, or there is no such user, or the panel cannot "
                     "read its database."},
    {"SetUserImage", "The photo is stored, but the panel could not record it with the user."},
    {"GetCardFormat", "The panel has no such card format, or cannot read its database."},
    {"GetCardFormatEx", "The panel has no card formats, or cannot read its database."},
    {"GetCardInfo", "The panel has no such card, or the card's format is gone, or the panel cannot "
                    "read its database."},
    {"GetCardInfoEx", "The panel has no such cards, or cannot read its database."},
    {"SetCardInfo", "Another card of this format has that number already, or the panel refused a "
                    "text or cannot write its database."},
    {"AddCardInfo", "Another card of this format has that number already, or the panel refused a "
                    "text or cannot write its database."},
    {"GetAccessLevel", "The panel has no such group of access levels, or cannot read its "
                       "database."},
    {"GetAccessLevelEx", "The panel has no access levels, or cannot read its database."},
    {"GetCardAccessLevel", "The panel has no such card, or cannot read its database."},
    {"GetThreatInfo", "The panel has no such threat level, or cannot read its database."},
    {"GetThreatInfoEx", "The panel has no threat levels, or cannot read its database."},
    {"GetDoorLock", "The panel has no lock for this door, or cannot read its database."},
    {"GetAuxOutput", "The panel has no such output, or cannot read its database."},
    {"GetThreatLevel", "The panel has no threat level in force, or cannot read its database."},
}};

std::string_view FailureMessage(std::string_view word)
{
    for (const Failure &failure : kFailures)
        if (failure.Word == word)
            return failure.Meaning;
    if (word.substr(0, 3) == "Del" || word == "SetCardAccessLevel")
        return "The panel cannot write its database; part of the change may be done.";
    if (word.substr(0, 3) == "Set")
        return "The panel cannot write its database.";
    return "The panel could not do it, or has no such thing.";
}

} // namespace

std::string ResultMessage(std::string_view word, int result)
{
    const bool isImage = word == "GetUserImage" || word == "SetUserImage";
    switch (result) {
    case 0:
        return "Done.";
    case 1:
        return std::string(FailureMessage(word));
    case 2:
        if (isImage)
            return word == "GetUserImage" ? "The panel cannot open the file of the photo."
                                          : "The panel cannot write a file of this name.";
        return "A value that the panel requires is missing or 0.";
    case 3:
        return "The bytes of the photo did not all reach the panel in time.";
    case 9:
        return "This login does not have the right to do that.";
    default:
        return "The panel returned the unknown result " + std::to_string(result) + ".";
    }
}

} // namespace nimbra::client
