#include "client/ClientWorker.h"

#include "base/Random.h"
#include "base/SecondTimer.h"
#include "base/Thread.h"
#include "base/Wait.h"
#include "data/DataManager.h"
#include "protocol/Line.h"
#include "protocol/SocketIo.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <iterator>
#include <utility>

#include <sys/time.h>

namespace nimbra {

namespace {

constexpr std::time_t kIdleSeconds = 10;

/// How many of the first commands are served before login.
constexpr std::size_t kCommandsBeforeLogin = 2;

} // namespace

/// Tried in this order; the first word that stands anywhere in a line takes it.
const ClientWorker::Command ClientWorker::kCommands[] = {
    {"Hello?", &ClientWorker::Hello},
    {"Login?", &ClientWorker::Login},
    {"Heartbeat?", &ClientWorker::Heartbeat},
    {"SetEvent?", &ClientWorker::SetEvent},
    {"GetEventLog?", &ClientWorker::GetEventLog},
    {"GetEventLogEx?", &ClientWorker::GetEventLogEx},
    {"GetEventCode?", &ClientWorker::GetEventCode},
    {"GetEventCodeEx?", &ClientWorker::GetEventCodeEx},
    {"GetLiveVideoInfo?", &ClientWorker::GetLiveVideoInfo},
    {"GetPlayVideoInfo?", &ClientWorker::GetPlayVideoInfo},
    {"GetDoorInfo?", &ClientWorker::GetDoorInfo},
    {"GetDoorInfoEx?", &ClientWorker::GetDoorInfoEx},
    {"GetUserInfo?", &ClientWorker::GetUserInfo},
    {"GetUserInfoEx?", &ClientWorker::GetUserInfoEx},
    {"SetUserInfo?", &ClientWorker::SetUserInfo},
    {"AddUserInfo?", &ClientWorker::AddUserInfo},
    {"DelUserInfo?", &ClientWorker::DelUserInfo},
    {"GetUserImage?", &ClientWorker::GetUserImage},
    {"SetUserImage?", &ClientWorker::SetUserImage},
    {"GetCardFormat?", &ClientWorker::GetCardFormat},
    {"GetCardFormatEx?", &ClientWorker::GetCardFormatEx},
    {"GetCardInfo?", &ClientWorker::GetCardInfo},
    {"GetCardInfoEx?", &ClientWorker::GetCardInfoEx},
    {"SetCardInfo?", &ClientWorker::SetCardInfo},
    {"AddCardInfo?", &ClientWorker::AddCardInfo},
    {"DelCardInfo?", &ClientWorker::DelCardInfo},
    {"GetAccessLevel?", &ClientWorker::GetAccessLevel},
    {"GetAccessLevelEx?", &ClientWorker::GetAccessLevelEx},
    {"GetCardAccessLevel?", &ClientWorker::GetCardAccessLevel},
    {"SetCardAccessLevel?", &ClientWorker::SetCardAccessLevel},
    {"GetThreatInfo?", &ClientWorker::GetThreatInfo},
    {"GetThreatInfoEx?", &ClientWorker::GetThreatInfoEx},
    {"GetDoorLock?", &ClientWorker::GetDoorLock},
    {"SetDoorLock?", &ClientWorker::SetDoorLock},
    {"GetAuxOutput?", &ClientWorker::GetAuxOutput},
    {"SetAuxOutput?", &ClientWorker::SetAuxOutput},
    {"GetThreatLevel?", &ClientWorker::GetThreatLevel},
    {"SetThreatLevel?", &ClientWorker::SetThreatLevel},
};

void ClientWorker::Start(Descriptor socket, const char *address, std::int32_t port)
{
    std::printf("Socket: %d, Addr: %s, Port: %d\n", socket.Get(), address, port);
    stop_.Clear();
    socket_ = std::move(socket);
    peerAddress_.Assign(address);
    peerPort_ = port;
    if (!StartThread<&ClientWorker::Run>(this)) {
        NIMBRA_LOG("pthread_create fail");
        running_.Clear();
    }
}

void ClientWorker::Run()
{
    Process();
    running_.Clear();
}

void ClientWorker::Process()
{
    char line[kLineSize];
    SecondTimer idle;
    while (!stop_.IsSet() && idle.Elapsed() <= kIdleSeconds) {
        if (!RecvMessage(socket_.Get(), line, sizeof line)) {
            // A socket that has broken fails at once, every time.
            PauseMillisecond();
            continue;
        }
        idle = SecondTimer();
        Dispatch(line);
    }
}

void ClientWorker::Dispatch(char *line, CallPlace place)
{
    const std::size_t known = isLoggedIn_ ? std::size(kCommands) : kCommandsBeforeLogin;
    const Command *const end = kCommands + known;
    const Command *command = std::find_if(
        kCommands, end, [line](const Command &c) { return strcasestr(line, c.Word) != nullptr; });
    if (command == end)
        return Log(place.In(kLogSource), "Invalid Message");
    try {
        (this->*command->Handler)(line);
    } catch (const std::exception &) {
        // Memory ran out in the middle: the data operation failed.
        const std::string_view word = command->Word;
        const FixedText<32> name(word.substr(0, word.size() - 1));
        Fail({name.Get(), __LINE__});
    }
}

void ClientWorker::Hello(char * /*line*/)
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    helloKey_ = SeedAndDraw(static_cast<unsigned>(now.tv_usec) +
                            static_cast<unsigned>(now.tv_sec) * 1000000U);
    Respond("HelloResponse?Result=0&Key=%d\n", helloKey_);
}

void ClientWorker::Login(char *line)
{
    // A session that was logged in stays so when this fails, but without any right.
    userName_.Clear();
    authority_ = {};
    FixedText<68> password;
    ParseKeys(line, {{"Username", userName_}, {"Password", password}});
    DataManager *data = DataManager::GetInstance();
    if (!data->CheckPassword(userName_, password, &authority_))
        return Answer(Result::Failed, "CheckPassword fail");
    Audit(15107);
    Succeed();
    isLoggedIn_ = true;
}

void ClientWorker::Heartbeat(char * /*line*/)
{
    Succeed();
}

bool ClientWorker::IsAuthorised(AuthorityArea area, std::uint32_t bit, CallPlace place)
{
    if (authority_.Allows(area, bit))
        return true;
    Answer(Result::NoAuthority, "Authority fail", place);
    return false;
}

void ClientWorker::ParseKeys(char *line, std::initializer_list<RequestKey> keys, CallPlace place)
{
    ParseKeys(line, std::span(keys.begin(), keys.size()), place);
}

void ClientWorker::ParseKeys(char *line, std::span<const RequestKey> keys, CallPlace place)
{
    char *rest = nullptr;
    static_cast<void>(SplitCommand(line, &rest));
    ReadKeys(rest, keys, place.In(kLogSource));
}

void ClientWorker::Answer(Result result, const char *message, CallPlace place)
{
    Respond("%sResponse?Result=%d\n", place.Method, static_cast<int>(result));
    Log(place.In(kLogSource), "%s", message);
}

void ClientWorker::Fail(CallPlace place)
{
    Respond("%sResponse?Result=%d\n", place.Method, static_cast<int>(Result::Failed));
    Log(place.In(kLogSource), "%s fail", place.Method);
}

void ClientWorker::Succeed(CallPlace place)
{
    Respond("%sResponse?Result=%d\n", place.Method, static_cast<int>(Result::Success));
}

void ClientWorker::Audit(int eventCode)
{
    DataManager::GetInstance()->WriteAuditLog(peerAddress_, userName_, eventCode);
}

void ClientWorker::Respond(const char *format, ...)
{
    char text[kLineSize];
    std::va_list arguments;
    va_start(arguments, format);
    FormatLineV(text, format, arguments);
    va_end(arguments);
    SendMessage(socket_.Get(), text);
}

} // namespace nimbra
