#include "simulator/cloud/CloudServer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace nimbra::cloud {

namespace {

/// The public port that the server sees every panel at.
constexpr char kSeenPort[] = "4000";

bool SendAll(int socket, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 1)
            return false;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

/// Reads one line byte by byte, so that what follows is left; false when the peer closes.
bool ReadLine(int socket, std::string *line)
{
    line->clear();
    char c = 0;
    while (recv(socket, &c, 1, 0) == 1) {
        if (c == '\n')
            return true;
        *line += c;
    }
    return false;
}

/// Carries what comes from one socket to the other until either closes, and then ends both.
void Carry(int from, int to)
{
    std::array<char, 65536> bytes;
    ssize_t count = 0;
    while ((count = recv(from, bytes.data(), bytes.size(), 0)) > 0)
        if (!SendAll(to, {bytes.data(), static_cast<std::size_t>(count)}))
            break;
    shutdown(from, SHUT_RDWR);
    shutdown(to, SHUT_RDWR);
}

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
    for (const int socket : sockets_)
        shutdown(socket, SHUT_RDWR);
    threadEnded_.wait(lock, [this] { return threads_ == 0; });
    for (const int socket : sockets_)
        close(socket);
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
    if (orders_.empty())
        return {std::string("HeartBeatResponse?Result=0&DeviceNo=7&LinkType=0&LinkAddr=127.0.0.1"
                            "&LinkPort=") +
                    kSeenPort + "\n",
                {},
                false};
    const Order order = orders_.front();
    orders_.pop_front();
    return {"HeartBeatResponse?Result=0&DeviceNo=7&LinkType=" + std::to_string(order.LinkType) +
                "&LinkAddr=" + order.LinkAddr + "&LinkPort=" + std::to_string(order.LinkPort) +
                "&RelayKey=" + std::to_string(order.RelayKey) + "\n",
            {},
            false};
}

void CloudServer::Queue(const Order &order)
{
    const std::lock_guard lock(lock_);
    orders_.push_back(order);
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
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int reuse = 1;
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    if (listener < 0 || setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) != 0 ||
        bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener, SOMAXCONN) != 0)
        throw std::system_error(errno, std::generic_category(), "port " + std::to_string(port));
    Hold(listener);
    Start([this, listener, handler] { Accept(listener, handler); });
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
    int socket = -1;
    while ((socket = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0) {
        Hold(socket);
        Start([this, socket, handler] { (this->*handler)(socket); });
    }
}

void CloudServer::Hold(int socket)
{
    const std::lock_guard lock(lock_);
    sockets_.insert(socket);
    if (isEnding_)
        shutdown(socket, SHUT_RDWR);
}

void CloudServer::Drop(int socket)
{
    const std::lock_guard lock(lock_);
    sockets_.erase(socket);
    close(socket);
}

void CloudServer::ServePanel(int socket)
{
    std::string line;
    while (ReadLine(socket, &line) && AnswerLine(socket, line))
        continue;
    Drop(socket);
}

void CloudServer::ServeRelay(int socket)
{
    std::string line;
    const bool isGreeted = linkType_ != 2 || (ReadLine(socket, &line) && AnswerLine(socket, line));
    const int client = isGreeted ? TakeClient(RelayKeyOf(line)) : -1;
    if (client >= 0) {
        Start([socket, client] { Carry(client, socket); });
        Carry(socket, client);
    }
    // The other direction may still be at work on the sockets of a pair: they stay until the end.
    if (client < 0)
        Drop(socket);
}

void CloudServer::ServeClient(int socket)
{
    const std::lock_guard lock(lock_);
    const int key = nextRelayKey_++;
    waitingClients_[key] = socket;
    orders_.push_back({linkType_, "127.0.0.1", ports_.Relay, key});
}

bool CloudServer::AnswerLine(int socket, const std::string &line)
{
    Answer answer;
    {
        const std::lock_guard lock(lock_);
        requests_.push_back({line, std::chrono::steady_clock::now()});
        answer = answer_;
    }
    const Reply reply = answer ? answer(line) : GoodAnswer(line);
    std::this_thread::sleep_for(reply.Delay);
    return SendAll(socket, reply.Text) && !reply.Close;
}

int CloudServer::TakeClient(int relayKey)
{
    const std::lock_guard lock(lock_);
    const auto client = relayKey == 0 ? waitingClients_.begin() : waitingClients_.find(relayKey);
    if (client == waitingClients_.end())
        return -1;
    const int socket = client->second;
    waitingClients_.erase(client);
    return socket;
}

} // namespace nimbra::cloud
