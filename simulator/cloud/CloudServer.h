#pragma once

#include "libnimbra-client/LineSocket.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace nimbra::simulator {

/// What the server does with a request line. With an empty text and no Close it sends nothing until
/// the panel gives up.
struct Reply
{
    std::string Text; ///< sent unchanged, line feed included
    std::chrono::milliseconds Delay{0};
    bool Close = false; ///< closes the connection after the text, without waiting for the panel
};

/// A request line as it came, without its line feed.
struct Request
{
    std::string Line;
    std::chrono::steady_clock::time_point Time;
};

/// A session that the server orders the panel to open.
struct SessionOrder
{
    int LinkType = 2;
    std::string LinkAddr = "127.0.0.1";
    int LinkPort = 0;
    int RelayKey = 0;
};

/// The server's side of the cloud link: takes registrations, answers heartbeats, and joins
/// management clients with the sessions that the panel opens. Runs on threads of its own while the
/// object lives; its methods may be called from any thread.
class CloudServer
{
public:
    struct Ports
    {
        int Server = 9500; ///< where panels register
        int Relay = 9510;  ///< where panels open the sessions that the server orders
        int Client = 9520; ///< where management clients connect to be joined with a panel
    };
    using Answer = std::function<Reply(const std::string &request)>;

    /// Throws std::system_error when a port cannot be had. `linkType` is that of the sessions that
    /// clients are joined with.
    explicit CloudServer(Ports ports, int linkType = 2);
    CloudServer() : CloudServer(Ports()) {}
    ~CloudServer();
    CloudServer(const CloudServer &) = delete;
    CloudServer &operator=(const CloudServer &) = delete;

    /// Replaces GoodAnswer; called on a thread of the server.
    void SetAnswer(Answer answer);
    /// The correct answer to a registration, a heartbeat or a relay handshake.
    [[nodiscard]] Reply GoodAnswer(const std::string &request);
    /// Makes the next correct heartbeat answer order the panel to open a session.
    void Queue(const SessionOrder &order);

    /// All requests so far, those of handshakes included.
    [[nodiscard]] std::vector<Request> Requests() const;
    /// How many requests begin with `word`.
    [[nodiscard]] std::size_t Count(const std::string &word) const;

private:
    /// Closed when the last thread that works on it has ended.
    using Connection = std::shared_ptr<LineSocket>;
    using Handler = void (CloudServer::*)(const Connection &connection);

    void Listen(int port, Handler handler);
    void Start(std::function<void()> body);
    void Accept(int listener, Handler handler);
    /// Keeps a connection, so that it can be shut down at the end.
    void Hold(const Connection &connection);
    void Drop(const Connection &connection);

    void ServePanel(const Connection &connection);
    void ServeRelay(const Connection &connection);
    void ServeClient(const Connection &connection);
    /// Carries what one connection receives to the other until either closes, and then ends both.
    void Carry(const Connection &from, const Connection &to);
    /// Sends the answer to `line`; false when the connection is to be closed.
    [[nodiscard]] bool AnswerLine(const LineSocket &connection, const std::string &line);
    /// The client that waits for the session with this key, or any client for key 0; null if none.
    [[nodiscard]] Connection TakeClient(int relayKey);

    const Ports ports_;
    const int linkType_;
    mutable std::mutex lock_;
    Answer answer_;
    std::vector<Request> requests_;
    std::deque<SessionOrder> sessionOrders_;
    std::map<int, Connection> waitingClients_; ///< by relay key
    int nextRelayKey_ = 1001;
    bool isEnding_ = false;
    std::vector<Descriptor> listeners_;
    std::set<Connection> connections_;
    int threads_ = 0; ///< detached threads that still run
    std::condition_variable threadEnded_;
};

} // namespace nimbra::simulator
