#include "scan/ScanManager.h"

#include "base/PanelConstants.h"
#include "base/Thread.h"
#include "base/Wait.h"
#include "core/ConfigManager.h"
#include "protocol/Line.h"
#include "protocol/Request.h"
#include "protocol/SocketOpen.h"

#include <cerrno>
#include <cstdio>

#include <netinet/in.h>
#include <sys/socket.h>

namespace nimbra {

ScanManager *ScanManager::GetInstance()
{
    static auto *const instance = new ScanManager;
    return instance;
}

bool ScanManager::Start()
{
    quit_.Clear();
    if (StartThread<&ScanManager::Process>(this))
        return true;
    NIMBRA_LOG("pthread_create fail");
    return false;
}

void ScanManager::Stop()
{
    quit_.Set();
}

void ScanManager::Process()
{
    while (!quit_.IsSet() && !OpenSocket()) {
        CloseSockets();
        WaitForNextSecond();
    }
    while (!quit_.IsSet()) {
        if (Drain())
            static_cast<void>(WaitForInput(receiveSocket_.Get()));
        else
            WaitForNextSecond();
    }
    CloseSockets();
}

bool ScanManager::OpenSocket()
{
    receiveSocket_ = OpenBroadcastSocket({kLogSource, __LINE__, __func__});
    if (!receiveSocket_.IsOpen())
        return false;
    const SocketAddress address(htonl(INADDR_ANY), kScanRequestPort);
    if (bind(receiveSocket_.Get(), address.Get(), SocketAddress::Size()) != 0) {
        NIMBRA_LOG("bind fail");
        return false;
    }
    sendSocket_ = OpenBroadcastSocket({kLogSource, __LINE__, __func__});
    return sendSocket_.IsOpen();
}

void ScanManager::CloseSockets()
{
    receiveSocket_.Close();
    sendSocket_.Close();
}

bool ScanManager::Drain(CallPlace place)
{
    char text[kLineSize];
    while (!quit_.IsSet()) {
        const ssize_t count =
            recvfrom(receiveSocket_.Get(), text, sizeof text - 1, MSG_DONTWAIT, nullptr, nullptr);
        if (count < 0)
            return errno == EAGAIN;
        // An empty datagram counts as none.
        if (count == 0)
            continue;
        text[count] = '\0';
        if (strcasestr(text, "Scan?") != nullptr)
            ProcScan(text);
        else
            Log(place.In(kLogSource), "Invalid Message");
    }
    return true;
}

void ScanManager::ProcScan(char *text)
{
    std::printf("%s", text);
    char *rest = nullptr;
    static_cast<void>(SplitCommand(text, &rest));
    std::int32_t key = 0;
    const RequestKey keys[] = {{"Key", &key}};
    ReadKeys(rest, keys, {kLogSource, __LINE__, __func__});
    if (key == 0)
        return NIMBRA_LOG("Key Error");
    const ConfigManager &config = *ConfigManager::GetInstance();
    const Line answer = Line::Response("Scan", 0)
                            .Pair("Key", key)
                            .Pair("MacAddr", config.MacAddr)
                            .Pair("ModelName", config.ModelName)
                            .Pair("PrivateAddr", config.PrivateAddr)
                            .Pair("PrivatePort", config.PrivatePort);
    const SocketAddress everyone(htonl(INADDR_BROADCAST), kScanAnswerPort);
    sendto(sendSocket_.Get(), answer.Get(), answer.View().size(), 0, everyone.Get(),
           SocketAddress::Size());
    std::printf("%s", answer.Get());
}

} // namespace nimbra
