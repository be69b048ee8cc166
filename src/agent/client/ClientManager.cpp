#include "client/ClientManager.h"

#include "base/Log.h"
#include "base/PanelConstants.h"
#include "base/Thread.h"
#include "base/Wait.h"
#include "client/ImageFile.h"
#include "protocol/SocketOpen.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace nimbra {

namespace {

constexpr int kBacklog = 10;

void PrintCount(std::size_t count)
{
    std::printf("Client Count: %d\n", static_cast<int>(count));
}

} // namespace

ClientManager *ClientManager::GetInstance()
{
    static auto *const instance = new ClientManager;
    return instance;
}

bool ClientManager::Start()
{
    stop_.Clear();
    // No session runs yet, so every such file is one that an earlier process left.
    RemoveUnfinishedUploads();
    if (StartThread<&ClientManager::Process>(this) &&
        StartThread<&ClientManager::CheckClient>(this))
        return true;
    NIMBRA_LOG("pthread_create fail");
    return false;
}

void ClientManager::Stop()
{
    stop_.Set();
    // For the reaper, which sleeps until it is needed.
    events_.Add();
    {
        const std::lock_guard lock(listLock_);
        for (const auto &session : sessions_)
            session->Stop();
    }
    for (int seen = events_.Get();; seen = events_.WaitPast(seen)) {
        std::size_t count = 0;
        while (auto ended = TakeEnded(&count))
            ended.reset();
        if (count == 0)
            return;
    }
}

void ClientManager::AddClient(Descriptor socket, const char *address, std::int32_t port)
{
    const std::lock_guard lock(listLock_);
    if (const auto count = Add(std::move(socket), address, port))
        PrintCount(*count);
}

void ClientManager::Process()
{
    const Descriptor listener = OpenSocket(kClientPort);
    if (!listener.IsOpen())
        return NIMBRA_LOG("OpenSocket fail");
    while (!stop_.IsSet()) {
        // Without a free descriptor the listener stays ready: only the clock ends that wait.
        if (AcceptPending(listener))
            static_cast<void>(WaitForInput(listener.Get()));
        else
            WaitForNextSecond();
    }
}

void ClientManager::CheckClient()
{
    for (int seen = events_.Get(); !stop_.IsSet(); seen = events_.WaitPast(seen)) {
        std::size_t count = 0;
        while (auto ended = TakeEnded(&count)) {
            ended.reset();
            PrintCount(count);
        }
    }
}

std::unique_ptr<ClientWorker> ClientManager::TakeEnded(std::size_t *count)
{
    const std::lock_guard lock(listLock_);
    const auto place = std::find_if(sessions_.begin(), sessions_.end(),
                                    [](const auto &session) { return !session->IsRunning(); });
    std::unique_ptr<ClientWorker> ended;
    if (place != sessions_.end()) {
        ended = std::move(*place);
        sessions_.erase(place);
    }
    *count = sessions_.size();
    return ended;
}

Descriptor ClientManager::OpenSocket(int port)
{
    Descriptor listener = OpenTcpSocket({kLogSource, __LINE__, __func__});
    if (!listener.IsOpen())
        return listener;
    const SocketAddress address(htonl(INADDR_ANY), port);
    if (bind(listener.Get(), address.Get(), SocketAddress::Size()) != 0) {
        NIMBRA_LOG("bind fail");
        return Descriptor();
    }
    if (listen(listener.Get(), kBacklog) != 0) {
        NIMBRA_LOG("listen fail");
        return Descriptor();
    }
    std::printf("Socket: %d, Port: %d\n", listener.Get(), port);
    return listener;
}

Descriptor ClientManager::AcceptClient(const Descriptor &listener, FixedText<32> *address,
                                       std::int32_t *port)
{
    sockaddr_in peer = {};
    socklen_t size = sizeof peer;
    Descriptor client(
        accept4(listener.Get(), reinterpret_cast<sockaddr *>(&peer), &size, SOCK_CLOEXEC));
    char text[INET_ADDRSTRLEN];
    if (client.IsOpen() && inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text) != nullptr) {
        address->Assign(text);
        *port = ntohs(peer.sin_port);
    }
    return client;
}

bool ClientManager::AcceptPending(const Descriptor &listener)
{
    while (!stop_.IsSet()) {
        FixedText<32> address;
        std::int32_t port = 0;
        Descriptor client = AcceptClient(listener, &address, &port);
        if (!client.IsOpen())
            return errno == EAGAIN;
        std::optional<std::size_t> count;
        {
            const std::lock_guard lock(listLock_);
            count = Add(std::move(client), address.Get(), port);
        }
        if (count)
            PrintCount(*count);
    }
    return true;
}

std::optional<std::size_t> ClientManager::Add(Descriptor socket, const char *address,
                                              std::int32_t port)
{
    // Stop waits only for the sessions that it finds.
    if (stop_.IsSet())
        return std::nullopt;
    try {
        sessions_.push_back(std::make_unique<ClientWorker>(&events_));
    } catch (const std::bad_alloc &) {
        // No memory for a session: this client is turned away, the others are served on.
        return std::nullopt;
    }
    sessions_.back()->Start(std::move(socket), address, port);
    return sessions_.size();
}

} // namespace nimbra
