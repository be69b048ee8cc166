#pragma once

#include "libnimbra-client/LineSocket.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace nimbra::bench {

/// A connection to a server under measurement. Every failure, also a server that is silent for 20
/// seconds, throws std::runtime_error.
class Client
{
public:
    /// Connects; tries again while the server does not listen yet or its queue is full.
    explicit Client(int port);

    [[nodiscard]] int Socket() const { return socket_.Get(); }

    void Send(std::string_view text);
    /// Reads one line and returns it without its line feed.
    [[nodiscard]] std::string ReadLine();
    [[nodiscard]] std::string Ask(const std::string &request);
    /// Sends the request and reads an answer of `size` bytes, with no other system calls than one
    /// to send and those to receive: for times of round trips.
    void Exchange(std::string_view request, std::size_t size) const;
    /// Says hello and logs in as the controller.
    void LogIn();
    /// Sends a heartbeat.
    void KeepAlive() { static_cast<void>(Ask("Heartbeat?\n")); }

    /// Sends the request and returns the whole answer: the header of a list says how many lines
    /// follow.
    [[nodiscard]] std::string AskAll(const std::string &request);
    /// Sends the request `count` times without waiting for answers; reads and drops `lines` lines
    /// at the same time.
    void Flood(const std::string &request, int count, std::size_t lines);

private:
    /// Waits for bytes and receives them.
    void Receive();

    LineSocket socket_;
};

} // namespace nimbra::bench
