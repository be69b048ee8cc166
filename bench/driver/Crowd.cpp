#include "bench/driver/Crowd.h"

#include "bench/driver/Clock.h"

#include <algorithm>
#include <stdexcept>

namespace nimbra::bench {

namespace {

/// So many sessions are added before those that exist send a heartbeat again. They fit the agent's
/// queue of clients that it has not accepted yet: a client that sends when the queue is full may be
/// reset.
constexpr std::size_t kBatch = 10;
constexpr double kHeartbeatSeconds = 5;

} // namespace

void Crowd::GrowTo(std::size_t count)
{
    while (clients_.size() < count) {
        KeepAlive();
        const std::size_t first = clients_.size();
        while (clients_.size() < std::min(count, first + kBatch))
            clients_.emplace_back(port_);
        AskAll(first, "Hello?\n");
        AskAll(first, "Login?Username=admin&Password=admin1234\n");
    }
}

void Crowd::Rest(double seconds)
{
    const double begin = Now();
    const auto count = static_cast<double>(clients_.size());
    const auto heartbeats = static_cast<std::size_t>(seconds * count / kHeartbeatSeconds);
    for (std::size_t i = 0; i < heartbeats; ++i) {
        Sleep(begin + static_cast<double>(i) * kHeartbeatSeconds / count - Now());
        clients_[i % clients_.size()].KeepAlive();
    }
    Sleep(begin + seconds - Now());
}

void Crowd::AskAll(std::size_t from, const std::string &request)
{
    for (std::size_t i = from; i < clients_.size(); ++i)
        clients_[i].Send(request);
    for (std::size_t i = from; i < clients_.size(); ++i)
        if (clients_[i].ReadLine().find("Result=0") == std::string::npos)
            throw std::runtime_error("refused: " + request);
}

} // namespace nimbra::bench
