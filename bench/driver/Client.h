#pragma once

#include "libnimbra-client/LineSocket.h"

#include <cstddef>
#include <string>

namespace nimbra::bench {

/// A connection to a server under measurement. Every failure, a server that is silent for 20
/// seconds too, throws std::runtime_error.
class Client
{
public:
    /// Connects; tries again while the server does not listen yet, or has its queue full.
    explicit Client(int port);

    [[nodiscard]] int Socket() const { return socket_.Get(); }

    void Send(const std::string &text);
    /// Reads one line; without its line feed.
    [[nodiscard]] std::string ReadLine();
    [[nodiscard]] std::string Ask(const std::string &request);
    /// Says hello and logs in as the controller.
    void LogIn();

    /// Sends the request and reads its answer to the end: the lines of a list are as many as its
    /// header says. Returns the whole answer.
    [[nodiscard]] std::string AskAll(const std::string &request);
    /// Sends the request `count` times without waiting for answers, and meanwhile reads and drops
    /// `lines` lines.
    void Flood(const std::string &request, int count, std::size_t lines);

private:
    /// Waits for bytes and receives them.
    void Receive();

    LineSocket socket_;
};

} // namespace nimbra::bench
