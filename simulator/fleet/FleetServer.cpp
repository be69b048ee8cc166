#include "simulator/fleet/FleetServer.h"

#include "libnimbra-client/LineSocket.h"
#include "libnimbra-client/Socket.h"
#include "simulator/fleet/FleetPanel.h"

#include <cstdlib>
#include <list>
#include <string_view>

namespace nimbra::simulator {

namespace {

/// The value of a key of a request.
std::string ValueOf(const std::string &request, std::string_view key)
{
    const std::size_t place = request.find(std::string(key) + "=");
    if (place == std::string::npos)
        return "";
    const std::size_t begin = place + key.size() + 1;
    return request.substr(begin, request.find('&', begin) - begin);
}

void Replace(std::string *text, std::string_view old, const std::string &replacement)
{
    const std::size_t place = text->find(old);
    if (place != std::string::npos)
        text->replace(place, old.size(), replacement);
}

} // namespace

void FleetServer::Start()
{
    {
        const std::lock_guard lock(lock_);
        registrations_.clear();
        heartbeats_.clear();
        toRelay_.clear();
    }
    server_.emplace();
    // The pointer stays valid for the requests that come while the server stops.
    CloudServer *const server = &*server_;
    server->SetAnswer(
        [this, server](const std::string &request) { return Answer(*server, request); });
}

std::size_t FleetServer::Registered() const
{
    const std::lock_guard lock(lock_);
    return registrations_.size();
}

std::size_t FleetServer::SendingHeartbeats() const
{
    const std::lock_guard lock(lock_);
    return heartbeats_.size();
}

std::size_t FleetServer::Heartbeats() const
{
    const std::lock_guard lock(lock_);
    std::size_t count = 0;
    for (const auto &[panel, beats] : heartbeats_)
        count += beats;
    return count;
}

int FleetServer::Relay(int panels, std::chrono::seconds limit)
{
    const Deadline deadline = SocketClock::now() + limit;
    {
        const std::lock_guard lock(lock_);
        for (int panel = 1; panel <= panels; ++panel)
            toRelay_.insert(panel);
    }
    std::list<LineSocket> clients;
    for (int client = 0; client < panels; ++client) {
        clients.emplace_back(client::ConnectTo("127.0.0.1", CloudServer::Ports().Client, deadline));
        if (!clients.back().Send("Hello?\n"))
            return 0;
    }
    int answered = 0;
    for (LineSocket &client : clients) {
        const std::string line = client.ReadLine(deadline).value_or("");
        answered += line.starts_with("HelloResponse?Result=0&Key=") ? 1 : 0;
    }
    return answered;
}

Reply FleetServer::Answer(CloudServer &server, const std::string &request)
{
    const bool isRegistration = request.starts_with("SetDeviceInfo?");
    if (!isRegistration && !request.starts_with("HeartBeat?"))
        return server.GoodAnswer(request);
    const std::lock_guard lock(lock_);
    if (isRegistration) {
        const int panel = FleetPanel::NumberOf(ValueOf(request, "MacAddr"));
        ++registrations_[panel];
        return {
            "SetDeviceInfoResponse?Result=0&DeviceNo=" + std::to_string(panel) + "\n", {}, false};
    }
    const std::string device = ValueOf(request, "DeviceNo");
    const int panel = std::atoi(device.c_str());
    ++heartbeats_[panel];
    const std::string none = "HeartBeatResponse?Result=0&DeviceNo=" + device +
                             "&LinkType=0&LinkAddr=" + kFleetServerAddress + "&LinkPort=4000\n";
    if (toRelay_.count(panel) == 0)
        return {none, {}, false};
    // The client that waits longest, if there is one.
    std::string text = server.GoodAnswer(request).Text;
    if (text.find("RelayKey=") == std::string::npos)
        return {none, {}, false};
    toRelay_.erase(panel);
    Replace(&text, "DeviceNo=7", "DeviceNo=" + device);
    Replace(&text, "LinkAddr=127.0.0.1", std::string("LinkAddr=") + kFleetServerAddress);
    return {text, {}, false};
}

} // namespace nimbra::simulator
