#include "client/ClientWorker.h"

namespace nimbra {

std::span<const ClientWorker::Command> ClientWorker::Commands()
{
    using W = ClientWorker;
    // Tried in this order: the first word that is found anywhere in a line takes it.
    static constexpr Command kCommands[] = {
        {"Hello?", kAnyone, &W::Hello},
        {"Login?", kAnyone, &W::Login},
        {"Heartbeat?", kAnyLogin, &W::Heartbeat},
        {"SetEvent?", kAnyLogin, &W::SetEvent},
        {"GetEventLog?", kAnyLogin, &W::GetEventLog},
        {"GetEventLogEx?", kAnyLogin, &W::GetEventLogEx},
        {"GetEventCode?", kAnyLogin, &W::GetEventCode},
        {"GetEventCodeEx?", kAnyLogin, &W::GetEventCodeEx},
        {"GetLiveVideoInfo?", kAnyLogin, &W::GetLiveVideoInfo},
        {"GetPlayVideoInfo?", kAnyLogin, &W::GetPlayVideoInfo},
        {"GetDoorInfo?", {AuthDoors, kView}, &W::GetDoorInfo},
        {"GetDoorInfoEx?", {AuthDoors, kView}, &W::GetDoorInfoEx},
        {"GetUserInfo?", {AuthUsers, kView}, &W::GetUserInfo},
        {"GetUserInfoEx?", {AuthUsers, kView}, &W::GetUserInfoEx},
        {"SetUserInfo?", {AuthUsers, kChange}, &W::SetUserInfo},
        {"AddUserInfo?", {AuthUsers, kAdd}, &W::AddUserInfo},
        {"DelUserInfo?", {AuthUsers, kChange}, &W::DelUserInfo},
        {"GetUserImage?", {AuthUsers, kView}, &W::GetUserImage},
        {"SetUserImage?", {AuthUsers, kChange}, &W::SetUserImage},
        {"GetCardFormat?", {AuthCardFormats, kView}, &W::GetCardFormat},
        {"GetCardFormatEx?", {AuthCardFormats, kView}, &W::GetCardFormatEx},
        {"GetCardInfo?", {AuthCards, kView}, &W::GetCardInfo},
        {"GetCardInfoEx?", {AuthCards, kView}, &W::GetCardInfoEx},
        {"SetCardInfo?", {AuthCards, kChange}, &W::SetCardInfo},
        {"AddCardInfo?", {AuthCards, kAdd}, &W::AddCardInfo},
        {"DelCardInfo?", {AuthCards, kChange}, &W::DelCardInfo},
        {"GetAccessLevel?", {AuthAccessLevels, kView}, &W::GetAccessLevel},
        {"GetAccessLevelEx?", {AuthAccessLevels, kView}, &W::GetAccessLevelEx},
        {"GetCardAccessLevel?", {AuthCards, kView}, &W::GetCardAccessLevel},
        {"SetCardAccessLevel?", {AuthCards, kChange}, &W::SetCardAccessLevel},
        {"GetThreatInfo?", {AuthThreatInfo, kView}, &W::GetThreatInfo},
        {"GetThreatInfoEx?", {AuthThreatInfo, kView}, &W::GetThreatInfoEx},
        {"GetDoorLock?", {AuthDoorLock, kView}, &W::GetDoorLock},
        {"SetDoorLock?", {AuthDoorLock, kChange}, &W::SetDoorLock},
        {"GetAuxOutput?", {AuthAuxOutput, kView}, &W::GetAuxOutput},
        {"SetAuxOutput?", {AuthAuxOutput, kChange}, &W::SetAuxOutput},
        {"GetThreatLevel?", {AuthThreatLevel, kView}, &W::GetThreatLevel},
        {"SetThreatLevel?", {AuthThreatLevel, kChange}, &W::SetThreatLevel},
    };
    return kCommands;
}

} // namespace nimbra
