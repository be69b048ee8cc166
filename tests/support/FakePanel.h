#pragma once

#include "libnimbra-client/LineSocket.h"
#include "simulator/sandbox/SystemCall.h"

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace nimbra::test {

/// A panel with answers that no real panel gives: the test makes them. Any thread may call the
/// methods; the answers are made in a thread of the object.
class FakePanel
{
public:
    /// Returns the bytes to send for a line. An empty text sends nothing, no value closes the
    /// connection.
    using Answer = std::function<std::optional<std::string>(const std::string &line)>;

    /// Listens on a free port of the loopback interface, for one connection after another. If the
    /// test's answer to "Hello?", "Heartbeat?" or "Login?" is empty, a successful one is sent.
    /// `greeting` is sent before anything is read. Throws std::system_error.
    explicit FakePanel(Answer answer, std::string greeting = "");
    ~FakePanel();
    FakePanel(const FakePanel &) = delete;
    FakePanel &operator=(const FakePanel &) = delete;

    [[nodiscard]] int Port() const { return port_; }
    /// All lines received so far.
    [[nodiscard]] std::vector<std::string> Lines() const;
    /// The number of received lines that begin with this text.
    [[nodiscard]] std::size_t Count(const std::string &beginning) const;

private:
    void Run();
    void Serve(LineSocket client);
    /// Sends the answer to a line; false when the connection is to be closed.
    [[nodiscard]] bool AnswerLine(const LineSocket &client, const std::string &line);

    const Answer answer_;
    const std::string greeting_;
    Descriptor listener_;
    int port_ = 0;
    sandbox::Pipe stop_; ///< closing it wakes the thread
    mutable std::mutex lock_;
    std::vector<std::string> lines_;
    std::thread thread_;
};

} // namespace nimbra::test
