#pragma once

#include "bench/driver/Client.h"

#include <cstddef>
#include <string>
#include <vector>

namespace nimbra::bench {

/// Many sessions of one server, all logged in. Failures throw std::exception.
class Crowd
{
public:
    explicit Crowd(int port) : port_(port) {}

    [[nodiscard]] std::vector<Client> &Clients() { return clients_; }

    /// Adds sessions until there are `count`.
    void GrowTo(std::size_t count);
    /// Sends a heartbeat on every session: a server ends a session that is silent for 10 seconds.
    void KeepAlive() { AskAll(0, "Heartbeat?\n"); }
    /// Sends the request on every session, and requires a good answer of one line.
    void AskAll(const std::string &request) { AskAll(0, request); }
    /// Keeps the sessions for so long; each sends a heartbeat every 5 seconds, at moments that are
    /// spread evenly.
    void Rest(double seconds);

private:
    void AskAll(std::size_t from, const std::string &request);

    int port_;
    std::vector<Client> clients_;
};

} // namespace nimbra::bench
