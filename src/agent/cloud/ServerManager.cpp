#include "cloud/ServerManager.h"

#include "base/Random.h"
#include "base/Thread.h"
#include "base/Wait.h"
#include "client/ClientManager.h"
#include "core/ConfigManager.h"
#include "protocol/SocketIo.h"
#include "protocol/SocketOpen.h"

#include <cerrno>
#include <ctime>
#include <utility>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>

namespace nimbra {

namespace {

constexpr int kConnectSeconds = 10;
constexpr std::time_t kRegistrationSeconds = 30;
constexpr std::time_t kHeartbeatSeconds = 3;
constexpr std::time_t kCheckTimeSeconds = 60;
constexpr int kFailuresToRegister = 10;

/// What counts as the Result of a reply that has none.
constexpr std::int32_t kNoResult = -1;

/// The link type of a relay with a handshake, and the one kind of relay that is asked for.
constexpr std::int32_t kRelayWithHandshake = 2;
constexpr int kRelayType = 0;

/// Whether a connection in progress succeeds within its time.
bool IsConnected(const Descriptor &socket)
{
    if (!WaitForConnection(socket.Get(), kConnectSeconds))
        return false;
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}

/// Makes one attempt to connect; true when the connection is established.
bool TryToConnect(const Descriptor &socket, const SocketAddress &address)
{
    const auto hasConnected = [&] {
        return ::connect(socket.Get(), address.Get(), SocketAddress::Size()) == 0;
    };
    if (hasConnected())
        return true;
    // After an attempt that was refused while in progress, the next call only says so and makes
    // the socket ready for another attempt.
    if (errno == ECONNABORTED && hasConnected())
        return true;
    return errno == EINPROGRESS && IsConnected(socket);
}

} // namespace

ServerManager *ServerManager::GetInstance()
{
    static auto *const instance = new ServerManager;
    return instance;
}

ServerManager::ServerManager()
{
    DrawSessionKey();
}

bool ServerManager::Start()
{
    // A thread that waits for the server notices late that it is to end.
    if (running_.IsSet()) {
        NIMBRA_LOG("earlier thread still running");
        return false;
    }
    const ConfigManager &config = *ConfigManager::GetInstance();
    cloudEnable_ = config.CloudEnable;
    cloudServerAddr_ = config.CloudServerAddr;
    cloudServerPort_ = config.CloudServerPort;
    device_.DeviceId = config.DeviceId;
    device_.MacAddr = config.MacAddr;
    device_.ModelName = config.ModelName;
    device_.PrivateAddr = config.PrivateAddr;
    device_.PrivatePort = config.PrivatePort;
    device_.StunAddr.Assign("127.0.0.1");
    device_.StunPort = 0;
    quit_.Clear();
    running_.Set();
    if (StartThread<&ServerManager::Run>(this))
        return true;
    running_.Clear();
    NIMBRA_LOG("pthread_create fail");
    return false;
}

void ServerManager::Stop()
{
    quit_.Set();
}

void ServerManager::Run()
{
    Process();
    running_.Clear();
}

void ServerManager::Process()
{
    SecondTimer sinceRegistration = SecondTimer::Expired();
    while (Register(&sinceRegistration)) {
        ConfigManager::GetInstance()->SetCommTime(true);
        if (!KeepLinked())
            return;
    }
}

bool ServerManager::Register(SecondTimer *sinceAttempt, CallPlace place)
{
    while (!quit_.IsSet()) {
        PauseSeconds(1);
        if (sinceAttempt->Elapsed() < kRegistrationSeconds)
            continue;
        *sinceAttempt = SecondTimer();
        if (!cloudEnable_)
            return false;
        if (SetDeviceInfo(&device_))
            return true;
        Log(place.In(kLogSource), "SetDeviceInfo fail");
    }
    return false;
}

bool ServerManager::KeepLinked(CallPlace place)
{
    SecondTimer sinceAttempt = SecondTimer::Expired();
    SecondTimer sinceCheckTime = SecondTimer::Expired();
    int failures = 0;
    do {
        const std::time_t now = ClockSecond();
        if (sinceAttempt.Elapsed(now) >= kHeartbeatSeconds) {
            sinceAttempt = SecondTimer(now);
            ++failures;
            if (PollServer()) {
                failures = 0;
                if (sinceCheckTime.Elapsed(now) >= kCheckTimeSeconds) {
                    sinceCheckTime = SecondTimer(now);
                    ConfigManager::GetInstance()->SetCommTime(false);
                }
            } else {
                Log(place.In(kLogSource), "Heartbeat fail");
                if (failures >= kFailuresToRegister)
                    return true;
            }
        }
        PauseSeconds(1);
    } while (!quit_.IsSet());
    return false;
}

bool ServerManager::SetDeviceInfo(DeviceInfo *device)
{
    const Descriptor socket = Connect(cloudServerAddr_, cloudServerPort_);
    if (!socket.IsOpen())
        return false;
    const Line request = Line::Request("SetDeviceInfo")
                             .Pair("DeviceId", device->DeviceId)
                             .Pair("MacAddr", device->MacAddr)
                             .Pair("ModelName", device->ModelName)
                             .Pair("PrivateAddr", device->PrivateAddr)
                             .Pair("PrivatePort", device->PrivatePort)
                             .Pair("StunAddr", device->StunAddr)
                             .Pair("StunPort", device->StunPort);
    std::int32_t result = kNoResult;
    const RequestKey keys[] = {{"Result", &result}, {"DeviceNo", &device->DeviceNo}};
    return Ask(socket, request, "SetDeviceInfoResponse", keys, result);
}

bool ServerManager::HeartBeat(LinkInfo *link)
{
    const Descriptor socket = Connect(cloudServerAddr_, cloudServerPort_);
    if (!socket.IsOpen())
        return false;
    const Line request = Line::Request("HeartBeat").Pair("DeviceNo", device_.DeviceNo);
    std::int32_t result = kNoResult;
    const RequestKey keys[] = {{"Result", &result},           {"DeviceNo", &link->DeviceNo},
                               {"LinkType", &link->LinkType}, {"LinkAddr", &link->LinkAddr},
                               {"LinkPort", &link->LinkPort}, {"RelayKey", &link->RelayKey}};
    return Ask(socket, request, "HeartBeatResponse", keys, result);
}

bool ServerManager::PollServer()
{
    LinkInfo link;
    link.DeviceNo = device_.DeviceNo;
    if (!HeartBeat(&link))
        return false;
    if (link.LinkType != 0) {
        Descriptor session = MakeSession(link);
        if (session.IsOpen()) {
            ClientManager::GetInstance()->AddClient(std::move(session), link.LinkAddr.Get(),
                                                    link.LinkPort);
            DrawSessionKey();
        }
        return true;
    }
    device_.StunAddr.Assign(link.LinkAddr.View());
    // A report that fails is not made again: the heartbeat itself has succeeded.
    if (portRule_.TakeIn(link.LinkPort, &device_.StunPort))
        static_cast<void>(SetDeviceInfo(&device_));
    return true;
}

Descriptor ServerManager::MakeSession(const LinkInfo &link)
{
    Descriptor socket = Connect(FixedText<32>(link.LinkAddr.View()), link.LinkPort);
    if (!socket.IsOpen() || link.LinkType != kRelayWithHandshake)
        return socket;
    const Line request =
        Line::Request("RelayDevice").Pair("RelayType", kRelayType).Pair("RelayKey", link.RelayKey);
    std::int32_t result = kNoResult;
    const RequestKey keys[] = {{"Result", &result}};
    if (!Ask(socket, request, "RelayDeviceResponse", keys, result))
        socket.Close();
    return socket;
}

Descriptor ServerManager::Connect(const FixedText<32> &host, std::int32_t port, CallPlace place)
{
    Descriptor socket = OpenSocket(host, port);
    if (!socket.IsOpen())
        Log(place.In(kLogSource), "OpenSocket fail");
    return socket;
}

Descriptor ServerManager::OpenSocket(const FixedText<32> &host, std::int32_t port)
{
    Descriptor socket = OpenTcpSocket({kLogSource, __LINE__, __func__});
    if (!socket.IsOpen())
        return socket;
    const FixedText<32> resolved = ResolveAddress(host);
    const SocketAddress address(inet_addr(resolved.Get()), port);
    SecondTimer timer;
    while (timer.Elapsed() < kConnectSeconds) {
        if (TryToConnect(socket, address))
            return socket;
        if (timer.Elapsed() < kConnectSeconds)
            WaitForNextSecond();
    }
    NIMBRA_LOG("connect fail %s:%s:%d", host.Get(), resolved.Get(), port);
    return Descriptor();
}

FixedText<32> ServerManager::ResolveAddress(const FixedText<32> &host)
{
    const char first = host.Get()[0];
    if ((first < 'A' || first > 'Z') && (first < 'a' || first > 'z'))
        return host;
    // Not re-entrant, but only this thread resolves names.
    const hostent *entry = gethostbyname(host.Get());
    if (entry == nullptr || entry->h_addrtype != AF_INET || entry->h_addr_list[0] == nullptr)
        return host;
    char text[INET_ADDRSTRLEN];
    if (inet_ntop(AF_INET, entry->h_addr_list[0], text, sizeof text) == nullptr)
        return host;
    return FixedText<32>(text);
}

bool ServerManager::Ask(const Descriptor &socket, const Line &request, const char *name,
                        std::span<const RequestKey> keys, const std::int32_t &result,
                        CallPlace place)
{
    const LogSite site = place.In(kLogSource);
    if (!SendMessage(socket.Get(), request.Get())) {
        Log(site, "SendMessage fail");
        return false;
    }
    char line[kLineSize];
    if (!RecvMessage(socket.Get(), line, sizeof line)) {
        Log(site, "RecvMessage fail");
        return false;
    }
    char *rest = nullptr;
    const char *command = SplitCommand(line, &rest);
    if (command == nullptr || strcasecmp(command, name) != 0) {
        Log(site, "Invalid Command");
        return false;
    }
    ReadKeys(rest, keys, site);
    if (result != 0)
        Log(site, "Result Error: %d", result);
    return result == 0;
}

void ServerManager::DrawSessionKey()
{
    constexpr std::int32_t kLowest = 10000;
    constexpr std::int32_t kCount = 10000;
    sessionKey_ = kLowest + Draw() % kCount;
}

} // namespace nimbra
