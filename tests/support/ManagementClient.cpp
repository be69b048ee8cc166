#include "support/ManagementClient.h"

#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace nimbra::test {

namespace {

using Clock = std::chrono::steady_clock;

milliseconds Left(Clock::time_point end)
{
    const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
    return std::max(left, milliseconds(0));
}

int Connect(const sockaddr_in &address)
{
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (socket >= 0 &&
        connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return socket;
    close(socket);
    return -1;
}

} // namespace

ManagementClient::ManagementClient(const std::string &address, int port, milliseconds limit)
{
    sockaddr_in peer = {};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<std::uint16_t>(port));
    inet_pton(AF_INET, address.c_str(), &peer.sin_addr);
    if (!WaitUntil([&] { return (socket_ = Connect(peer)) >= 0; }, limit))
        throw std::runtime_error("nobody accepts connections at " + address);
}

ManagementClient::~ManagementClient()
{
    Close();
}

ManagementClient::ManagementClient(ManagementClient &&other) noexcept
    : socket_(std::exchange(other.socket_, -1)), hasEnded_(other.hasEnded_),
      received_(std::move(other.received_))
{}

void ManagementClient::Send(std::string_view bytes) const
{
    while (!bytes.empty()) {
        const ssize_t count = send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 1)
            return;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

std::optional<std::string> ManagementClient::ReadLine(milliseconds limit)
{
    const auto end = Clock::now() + limit;
    for (;;) {
        const std::size_t length = received_.find('\n');
        if (length != std::string::npos) {
            std::string line = received_.substr(0, length);
            received_.erase(0, length + 1);
            return line;
        }
        if (!Receive(Left(end)))
            return std::nullopt;
    }
}

std::string ManagementClient::ReadBytes(std::size_t count, milliseconds limit)
{
    const auto end = Clock::now() + limit;
    while (received_.size() < count && Receive(Left(end)))
        continue;
    std::string bytes = received_.substr(0, count);
    received_.erase(0, count);
    return bytes;
}

std::string ManagementClient::Ask(const std::string &line, milliseconds limit)
{
    SendLine(line);
    return ReadLine(limit).value_or("(no answer)");
}

std::vector<std::string> ManagementClient::AskList(const std::string &line)
{
    std::vector<std::string> lines = {Ask(line)};
    const std::size_t mark = lines[0].rfind("&Count=");
    if (mark == std::string::npos)
        return lines;
    const std::size_t count = std::stoul(lines[0].substr(mark + 7));
    lines.reserve(count + 1);
    while (lines.size() <= count) {
        auto row = ReadLine();
        if (!row)
            break;
        lines.push_back(std::move(*row));
    }
    return lines;
}

bool ManagementClient::IsSilent(milliseconds duration)
{
    return received_.empty() && !Receive(duration) && !hasEnded_;
}

bool ManagementClient::IsClosedByPeer(milliseconds limit)
{
    const auto end = Clock::now() + limit;
    while (!hasEnded_ && Left(end) > milliseconds(0))
        static_cast<void>(Receive(Left(end)));
    return hasEnded_;
}

std::string ManagementClient::Login(const std::string &user, const std::string &password)
{
    return Ask("Login?Username=" + user + "&Password=" + password);
}

void ManagementClient::Close()
{
    if (socket_ >= 0)
        close(std::exchange(socket_, -1));
}

void ManagementClient::Reset()
{
    const linger now = {1, 0};
    setsockopt(socket_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    Close();
}

int ManagementClient::LocalPort() const
{
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    getsockname(socket_, reinterpret_cast<sockaddr *>(&address), &size);
    return ntohs(address.sin_port);
}

bool ManagementClient::Receive(milliseconds limit)
{
    pollfd wait = {socket_, POLLIN, 0};
    if (hasEnded_ || poll(&wait, 1, static_cast<int>(limit.count())) < 1)
        return false;
    std::array<char, 65536> bytes;
    const ssize_t count = recv(socket_, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (count < 1) {
        hasEnded_ = true;
        return false;
    }
    received_.append(bytes.data(), static_cast<std::size_t>(count));
    return true;
}

} // namespace nimbra::test
