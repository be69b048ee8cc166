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

/// Stands in for a panel that does what no real one can be made to do: a server whose answers are
/// made by the test. Its methods may be called from any thread; the answers are made on its own.
class FakePanel
{
public:
    /// The bytes to send for a line; an empty text leaves it unanswered, nothing closes the
    /// connection.
    using Answer = std::function<std::optional<std::string>(const std::string &line)>;

    /// Listens on a free port of the loopback, for one connection after another. "Hello?",
    /// "Heartbeat?" and "Login?" are answered well unless the test's answer says something.
    /// `greeting` is sent before anything is read. Throws std::system_error.
    explicit FakePanel(Answer answer, std::string greeting = "");
    ~FakePanel();
    FakePanel(const FakePanel &) = delete;
    FakePanel &operator=(const FakePanel &) = delete;

    [[nodiscard]] int Port() const { return port_; }
    /// Every line so far.
    [[nodiscard]] std::vector<std::string> Lines() const;
    /// How many of them begin with this text.
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
    sandbox::Pipe stop_; ///< its end wakes the thread
    mutable std::mutex lock_;
    std::vector<std::string> lines_;
    std::thread thread_;
};

} // namespace nimbra::test
