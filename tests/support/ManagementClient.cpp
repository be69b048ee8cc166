#include "support/ManagementClient.h"

#include "support/TestSocket.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include <netinet/in.h>
#include <sys/socket.h>

namespace nimbra::test {

namespace {

Deadline After(milliseconds limit)
{
    return SocketClock::now() + limit;
}

} // namespace

ManagementClient::ManagementClient(const std::string &address, int port, milliseconds limit)
{
    const auto isConnected = [this, &address, port] {
        TestSocket socket;
        if (socket.Connect(address.c_str(), port))
            socket_ = LineSocket(socket.Release());
        return socket_.IsOpen();
    };
    if (!WaitUntil(isConnected, limit))
        throw std::runtime_error("nobody accepts connections at " + address);
}

std::optional<std::string> ManagementClient::ReadLine(milliseconds limit)
{
    const Deadline deadline = After(limit);
    for (;;) {
        std::optional<std::string> line = socket_.TakeLine();
        if (line || !Receive(deadline))
            return line;
    }
}

std::string ManagementClient::ReadBytes(std::size_t count, milliseconds limit)
{
    const Deadline deadline = After(limit);
    while (socket_.Received().size() < count && Receive(deadline))
        continue;
    return socket_.TakeBytes(count);
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
    return socket_.Received().empty() && !Receive(After(duration)) && !hasEnded_;
}

bool ManagementClient::IsClosedByPeer(milliseconds limit)
{
    const Deadline deadline = After(limit);
    while (!hasEnded_ && SocketClock::now() < deadline)
        static_cast<void>(Receive(deadline));
    return hasEnded_;
}

std::string ManagementClient::Upload(int userNo, const std::string &name, const std::string &bytes)
{
    SendLine("SetUserImage?UserNo=" + std::to_string(userNo) + "&FileName=" + name +
             "&Size=" + std::to_string(bytes.size()));
    Send(bytes);
    return ReadLine().value_or("(no answer)");
}

std::string ManagementClient::Login(const std::string &user, const std::string &password)
{
    return Ask("Login?Username=" + user + "&Password=" + password);
}

void ManagementClient::Reset()
{
    const linger now = {1, 0};
    setsockopt(socket_.Get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
    Close();
}

int ManagementClient::LocalPort() const
{
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    getsockname(socket_.Get(), reinterpret_cast<sockaddr *>(&address), &size);
    return ntohs(address.sin_port);
}

bool ManagementClient::Receive(Deadline deadline)
{
    if (hasEnded_)
        return false;
    const IoStatus status = socket_.Receive(deadline).Status;
    hasEnded_ = status == IoStatus::Closed || status == IoStatus::Failed;
    return status == IoStatus::Done;
}

} // namespace nimbra::test
