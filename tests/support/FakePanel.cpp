#include "support/FakePanel.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace nimbra::test {

namespace {

bool BeginsWith(const std::string &text, const std::string &beginning)
{
    return text.compare(0, beginning.size(), beginning) == 0;
}

std::string GoodManners(const std::string &line)
{
    if (line == "Hello?")
        return "HelloResponse?Result=0&Key=1\n";
    if (line == "Heartbeat?")
        return "HeartbeatResponse?Result=0\n";
    return BeginsWith(line, "Login?") ? "LoginResponse?Result=0\n" : "";
}

/// Waits until the socket can be read; false when the panel is to end.
bool WaitFor(int socket, int stop)
{
    std::array<pollfd, 2> waits{{{socket, POLLIN, 0}, {stop, POLLIN, 0}}};
    poll(waits.data(), waits.size(), -1);
    return waits[1].revents == 0;
}

} // namespace

FakePanel::FakePanel(Answer answer, std::string greeting)
    : answer_(std::move(answer)), greeting_(std::move(greeting)),
      listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto *const generic = reinterpret_cast<sockaddr *>(&address);
    if (listener_ < 0 || bind(listener_, generic, size) != 0 || listen(listener_, 5) != 0 ||
        getsockname(listener_, generic, &size) != 0 || pipe(stop_) != 0)
        throw std::system_error(errno, std::generic_category(), "fake panel");
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Run(); });
}

FakePanel::~FakePanel()
{
    close(stop_[1]);
    thread_.join();
    close(stop_[0]);
    close(listener_);
}

std::vector<std::string> FakePanel::Lines() const
{
    const std::lock_guard guard(lock_);
    return lines_;
}

std::size_t FakePanel::Count(const std::string &beginning) const
{
    const std::vector<std::string> lines = Lines();
    return static_cast<std::size_t>(
        std::count_if(lines.begin(), lines.end(), [&beginning](const std::string &line) {
            return BeginsWith(line, beginning);
        }));
}

void FakePanel::Run()
{
    while (WaitFor(listener_, stop_[0])) {
        const int socket = accept(listener_, nullptr, nullptr);
        send(socket, greeting_.data(), greeting_.size(), MSG_NOSIGNAL);
        Serve(socket);
        close(socket);
    }
}

void FakePanel::Serve(int socket)
{
    std::string received;
    while (WaitFor(socket, stop_[0])) {
        std::array<char, 4096> bytes;
        const ssize_t count = recv(socket, bytes.data(), bytes.size(), 0);
        if (count <= 0)
            return;
        received.append(bytes.data(), static_cast<std::size_t>(count));
        for (std::size_t end = 0; (end = received.find('\n')) != std::string::npos;) {
            const std::string line = received.substr(0, end);
            received.erase(0, end + 1);
            if (!Send(socket, line))
                return;
        }
    }
}

bool FakePanel::Send(int socket, const std::string &line)
{
    {
        const std::lock_guard guard(lock_);
        lines_.push_back(line);
    }
    std::optional<std::string> text = answer_(line);
    if (!text)
        return false;
    if (text->empty())
        text = GoodManners(line);
    send(socket, text->data(), text->size(), MSG_NOSIGNAL);
    return true;
}

} // namespace nimbra::test
