#include "support/FakePanel.h"

#include "simulator/cloud/Relay.h"

#include <algorithm>
#include <array>
#include <utility>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace nimbra::test {

namespace {

std::string SuccessOf(const std::string &line)
{
    if (line == "Hello?")
        return "HelloResponse?Result=0&Key=1\n";
    if (line == "Heartbeat?")
        return "HeartbeatResponse?Result=0\n";
    return line.starts_with("Login?") ? "LoginResponse?Result=0\n" : "";
}

/// Waits until the socket can be read; false when the panel is to end.
bool WaitFor(int socket, const Descriptor &stop)
{
    std::array<pollfd, 2> waits{{{socket, POLLIN, 0}, {stop.Get(), POLLIN, 0}}};
    poll(waits.data(), waits.size(), -1);
    return waits[1].revents == 0;
}

} // namespace

FakePanel::FakePanel(Answer answer, std::string greeting)
    : answer_(std::move(answer)), greeting_(std::move(greeting)),
      listener_(simulator::OpenListener(0, simulator::ListenOn::Loopback)),
      stop_(sandbox::MakePipe())
{
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    sandbox::Check(getsockname(listener_.Get(), reinterpret_cast<sockaddr *>(&address), &size),
                   "fake panel");
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Run(); });
}

FakePanel::~FakePanel()
{
    stop_.WriteEnd.Close();
    thread_.join();
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
            return line.starts_with(beginning);
        }));
}

void FakePanel::Run()
{
    while (WaitFor(listener_.Get(), stop_.ReadEnd))
        Serve(LineSocket(Descriptor(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC))));
}

void FakePanel::Serve(LineSocket client)
{
    static_cast<void>(client.Send(greeting_));
    while (WaitFor(client.Get(), stop_.ReadEnd) && client.Receive(SocketClock::now()).IsDone())
        while (const std::optional<std::string> line = client.TakeLine())
            if (!AnswerLine(client, *line))
                return;
}

bool FakePanel::AnswerLine(const LineSocket &client, const std::string &line)
{
    {
        const std::lock_guard guard(lock_);
        lines_.push_back(line);
    }
    std::optional<std::string> text = answer_(line);
    if (!text)
        return false;
    if (text->empty())
        text = SuccessOf(line);
    return client.Send(*text);
}

} // namespace nimbra::test
