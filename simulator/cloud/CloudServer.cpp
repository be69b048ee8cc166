#include "simulator/cloud/CloudServer.h"

#include "simulator/cloud/Relay.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include <netinet/in.h>
#include <sys/socket.h>

namespace nimbra::simulator {

namespace {

/// The public port that the server sees every panel at.
constexpr char kSeenPort[] = "4000";

/// The number behind "RelayKey=" in a handshake.
int RelayKeyOf(const std::string &line)
{
    constexpr std::string_view kKey = "RelayKey=";
    const std::size_t place = line.find(kKey);
    return place == std::string::npos ? 0 : std::atoi(line.c_str() + place + kKey.size());
}

} // namespace

CloudServer::CloudServer(Ports ports, int linkType) : ports_(ports), linkType_(linkType)
{
    Listen(ports.Server, &CloudServer::ServePanel);
    Listen(ports.Relay, &CloudServer::ServeRelay);
    Listen(ports.Client, &CloudServer::ServeClient);
}

CloudServer::~CloudServer()
{
    std::unique_lock lock(lock_);
    isEnding_ = true;
    // Every thread waits for a socket, and no new one starts.
    for (const Descriptor &listener : listeners_)
        shutdown(listener.Get(), SHUT_RDWR);
    for (const Connection &connection : connections_)
        connection->Shutdown();
    threadEnded_.wait(lock, [this] { return threads_ == 0; });
}

void CloudServer::SetAnswer(Answer answer)
{
    const std::lock_guard lock(lock_);
    answer_ = std::move(answer);
}

Reply CloudServer::GoodAnswer(const std::string &request)
{
    if (request.rfind("SetDeviceInfo?", 0) == 0)
        return {"SetDeviceInfoResponse?Result=0&DeviceNo=7\n", {}, false};
    if (request.rfind("RelayDevice?", 0) == 0)
        return {"RelayDeviceResponse?Result=0\n", {}, false};
    const std::lock_guard lock(lock_);
    if (sessionOrders_.empty())
        return {std::string("HeartBeatResponse?Result=0&DeviceNo=7&LinkType=0&LinkAddr=127.0.0.1"
                            "&LinkPort=") +
                    kSeenPort + "\n",
                {},
                false};
    const SessionOrder order = sessionOrders_.front();
    sessionOrders_.pop_front();
    return {"HeartBeatResponse?Result=0&DeviceNo=7&LinkType=" + std::to_string(order.LinkType) +
                "&LinkAddr=" + order.LinkAddr + "&LinkPort=" + std::to_string(order.LinkPort) +
                "&RelayKey=" + std::to_string(order.RelayKey) + "\n",
            {},
            false};
}

void CloudServer::Queue(const SessionOrder &order)
{
    const std::lock_guard lock(lock_);
    sessionOrders_.push_back(order);
}

std::vector<Request> CloudServer::Requests() const
{
    const std::lock_guard lock(lock_);
    return requests_;
}

std::size_t CloudServer::Count(const std::string &word) const
{
    const std::lock_guard lock(lock_);
    return static_cast<std::size_t>(
        std::count_if(requests_.begin(), requests_.end(), [&word](const Request &request) {
            return request.Line.rfind(word, 0) == 0;
        }));
}

void CloudServer::Listen(int port, Handler handler)
{
    Descriptor listener = OpenListener(port, ListenOn::AllAddresses);
    const int number = listener.Get();
    listeners_.push_back(std::move(listener));
    Start([this, number, handler] { Accept(number, handler); });
}

void CloudServer::Start(std::function<void()> body)
{
    const std::lock_guard lock(lock_);
    if (isEnding_)
        return;
    ++threads_;
    std::thread([this, body = std::move(body)] {
        body();
        const std::lock_guard end(lock_);
        --threads_;
        threadEnded_.notify_all();
    }).detach();
}

void CloudServer::Accept(int listener, Handler handler)
{
    for (;;) {
        Descriptor socket(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
        if (!socket.IsOpen())
            return;
        const auto connection = std::make_shared<LineSocket>(std::move(socket));
        Hold(connection);
        Start([this, connection, handler] { (this->*handler)(connection); });
    }
}

void CloudServer::Hold(const Connection &connection)
{
    const std::lock_guard lock(lock_);
    connections_.insert(connection);
    if (isEnding_)
        connection->Shutdown();
}

void CloudServer::Drop(const Connection &connection)
{
    const std::lock_guard lock(lock_);
    connections_.erase(connection);
}

void CloudServer::ServePanel(const Connection &connection)
{
    std::optional<std::string> line;
    while ((line = connection->ReadLine()) && AnswerLine(*connection, *line))
        continue;
    Drop(connection);
}

void CloudServer::ServeRelay(const Connection &connection)
{
    std::optional<std::string> handshake("");
    if (linkType_ == 2 &&
        (!(handshake = connection->ReadLine()) || !AnswerLine(*connection, *handshake)))
        return Drop(connection);
    const Connection client = TakeClient(RelayKeyOf(*handshake));
    if (client == nullptr)
        return Drop(connection);
    Start([this, connection, client] { Carry(client, connection); });
    Carry(connection, client);
}

void CloudServer::ServeClient(const Connection &connection)
{
    const std::lock_guard lock(lock_);
    const int key = nextRelayKey_++;
    waitingClients_[key] = connection;
    sessionOrders_.push_back({linkType_, "127.0.0.1", ports_.Relay, key});
}

void CloudServer::Carry(const Connection &from, const Connection &to)
{
    // The first bytes may have been received together with the handshake.
    simulator::Carry(*from, *to);
    Drop(from);
}

bool CloudServer::AnswerLine(const LineSocket &connection, const std::string &line)
{
    Answer answer;
    {
        const std::lock_guard lock(lock_);
        requests_.push_back({line, std::chrono::steady_clock::now()});
        answer = answer_;
    }
    const Reply reply = answer ? answer(line) : GoodAnswer(line);
    std::this_thread::sleep_for(reply.Delay);
    return connection.Send(reply.Text) && !reply.Close;
}

CloudServer::Connection CloudServer::TakeClient(int relayKey)
{
    const std::lock_guard lock(lock_);
    const auto client = relayKey == 0 ? waitingClients_.begin() : waitingClients_.find(relayKey);
    if (client == waitingClients_.end())
        return nullptr;
    Connection connection = client->second;
    waitingClients_.erase(client);
    return connection;
}

} // namespace nimbra::simulator
