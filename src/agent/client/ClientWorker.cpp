#include "client/ClientWorker.h"

#include "base/Random.h"
#include "base/Thread.h"
#include "base/Wait.h"
#include "data/DataManager.h"
#include "data/LockTime.h"
#include "protocol/SocketIo.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace nimbra {

namespace {

constexpr std::time_t kIdleSeconds = 10;

} // namespace

void ClientWorker::Start(Descriptor socket, const char *address, std::int32_t port)
{
    std::printf("Socket: %d, Addr: %s, Port: %d\n", socket.Get(), address, port);
    stop_.Clear();
    socket_ = std::move(socket);
    peerAddress_.Assign(address);
    peerPort_ = port;
    // The second part of a response, such as an image, does not wait for the client to acknowledge
    // the first.
    const int isOn = 1;
    setsockopt(socket_.Get(), IPPROTO_TCP, TCP_NODELAY, &isOn, sizeof isOn);
    if (!StartThread<&ClientWorker::Run>(this)) {
        NIMBRA_LOG("pthread_create fail");
        End();
    }
}

void ClientWorker::Run()
{
    Process();
    End();
}

void ClientWorker::End()
{
    // The session may be deleted as soon as its flag is clear.
    EventCount *const ends = ends_;
    running_.Clear();
    ends->Add();
}

void ClientWorker::Process()
{
    char line[kLineSize];
    idle_ = SecondTimer();
    while (!stop_.IsSet() && idle_.Elapsed() <= kIdleSeconds) {
        bool hasFailed = false;
        if (!RecvMessage(socket_.Get(), line, sizeof line, &hasFailed)) {
            // A socket that has failed does so at once, every time.
            if (hasFailed)
                WaitForNextSecond();
            continue;
        }
        idle_ = SecondTimer();
        Dispatch(line);
    }
}

void ClientWorker::Dispatch(char *line)
{
    command_ = FindCommand(line);
    if (command_ == nullptr)
        return Log({kLogSource, __LINE__, "Process"}, "Invalid Message");
    const LockTime lockTime;
    if (!authority_.Allows(command_->Needs))
        return Answer(Result::NoAuthority, "Authority fail");
    try {
        (this->*command_->Handler)(line);
    } catch (const std::exception &) {
        // Memory ran out in the middle: the data operation failed.
        Fail();
    }
}

const ClientWorker::Command *ClientWorker::FindCommand(const char *line) const
{
    for (const Command &command : Commands())
        if ((isLoggedIn_ || !command.Needs.NeedsLogin) && strcasestr(line, command.Word) != nullptr)
            return &command;
    return nullptr;
}

void ClientWorker::Hello(char * /*line*/)
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    helloKey_ = SeedAndDraw(static_cast<unsigned>(now.tv_usec) +
                            static_cast<unsigned>(now.tv_sec) * 1000000U);
    Send(Response(Result::Success).Pair("Key", helloKey_));
}

void ClientWorker::Login(char *line)
{
    // A session that was logged in stays so when this fails, but without any right.
    userName_.Clear();
    authority_ = {};
    FixedText<68> password;
    ParseKeys(line, {{"Username", &userName_}, {"Password", &password}});
    DataManager *data = DataManager::GetInstance();
    if (!data->CheckPassword(userName_, password, &authority_))
        return Answer(Result::Failed, "CheckPassword fail");
    Audit(AuditEvent::LoggedIn);
    Succeed();
    isLoggedIn_ = true;
}

void ClientWorker::Heartbeat(char * /*line*/)
{
    Succeed();
}

void ClientWorker::ParseKeys(char *line, std::initializer_list<RequestKey> keys, CallPlace call)
{
    ParseKeys(line, std::span(keys.begin(), keys.size()), call);
}

void ClientWorker::ParseKeys(char *line, std::span<const RequestKey> keys, CallPlace call)
{
    char *rest = nullptr;
    static_cast<void>(SplitCommand(line, &rest));
    ReadKeys(rest, keys, SiteOf(call));
}

Line ClientWorker::Response(Result result) const
{
    return Line::Response(command_->Name(), static_cast<int>(result));
}

void ClientWorker::Answer(Result result, const char *message, CallPlace call)
{
    Send(Response(result));
    Log(SiteOf(call), "%s", message);
}

void ClientWorker::Fail(CallPlace call)
{
    Send(Response(Result::Failed));
    const std::string_view name = command_->Name();
    Log(SiteOf(call), "%.*s fail", static_cast<int>(name.size()), name.data());
}

void ClientWorker::Succeed()
{
    Send(Response(Result::Success));
}

void ClientWorker::Audit(AuditEvent event)
{
    DataManager::GetInstance()->WriteAuditLog(peerAddress_, userName_, static_cast<int>(event));
}

void ClientWorker::Send(const Line &line)
{
    SendMessage(socket_.Get(), line.Get());
}

LogSite ClientWorker::SiteOf(const CallPlace &call) const
{
    return {kLogSource, call.Line, command_->Name()};
}

} // namespace nimbra
