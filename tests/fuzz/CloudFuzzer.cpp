// The cloud link: the real link against a server that replies with the input. A model of the link
// predicts the target and the request of each connection, which shows that the link has understood
// every reply: its key, its port, its relay. A relay that is established must serve a session.

#include "client/ClientManager.h"
#include "cloud/ServerManager.h"
#include "core/ConfigManager.h"
#include "fuzz/AgentTime.h"
#include "fuzz/Finding.h"
#include "fuzz/InputSize.h"
#include "fuzz/MemoryConnection.h"
#include "fuzz/MessageModel.h"
#include "fuzz/ValueModel.h"

#include <sqlite3.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace nimbra::fuzz {
namespace {

constexpr char kServer[] = "cloud.nimbra.example";
constexpr int kServerPort = 9500;

/// Host names with this first letter resolve to kHostAddress; others cannot be resolved.
constexpr char kKnownHost = 'c';
constexpr char kHostAddress[] = "192.168.77.20";

/// First bytes of a reply that means a refused connection, or a line without an end.
constexpr char kRefused[] = "!";
constexpr char kUnended[] = "~";

/// The time in which the link tries to connect.
constexpr std::time_t kConnectSeconds = 10;

constexpr char kGreeting[] = "HelloResponse?Result=0&Key=";

/// The maximum size of a line, with its line feed.
constexpr std::size_t kLongestLine = 1024;

/// Consecutive failures after which the link registers again.
constexpr int kFailures = 10;

constexpr char kRegistered[] = "SetDeviceInfoResponse?Result=0&DeviceNo=0";
constexpr char kPortless[] = "HeartBeatResponse?Result=0&LinkPort=0";

enum class Exchange
{
    Registration, ///< until it succeeds
    Heartbeat,
    Report, ///< of a new public port
    Relay,
    Session, ///< a relay is established: its client sends
};

/// The state of the link after the replies so far.
class LinkModel
{
public:
    [[nodiscard]] Exchange Next() const { return next_; }

    /// Where the next connection must go.
    [[nodiscard]] std::string Host() const
    {
        return next_ == Exchange::Relay ? linkAddr_ : kServer;
    }
    [[nodiscard]] std::int32_t Port() const
    {
        return next_ == Exchange::Relay ? linkPort_ : kServerPort;
    }
    /// The next request; none for a relay without a handshake.
    [[nodiscard]] std::string Request() const
    {
        if (next_ == Exchange::Heartbeat)
            return "HeartBeat?DeviceNo=" + std::to_string(deviceNo_) + "\n";
        if (next_ == Exchange::Relay)
            return "RelayDevice?RelayType=0&RelayKey=" + std::to_string(relayKey_) + "\n";
        return "SetDeviceInfo?DeviceId=0123456789&MacAddr=00:1A:2B:3C:4D:5E&ModelName=Dogwood 64"
               "&PrivateAddr=192.168.77.10&PrivatePort=9000&StunAddr=" +
               stunAddr_ + "&StunPort=" + std::to_string(stunPort_) + "\n";
    }
    [[nodiscard]] bool IsHandshakeWanted() const
    {
        return next_ != Exchange::Relay || linkType_ == 2;
    }

    /// The replies that reset the link. A process has only one.
    [[nodiscard]] std::vector<std::string_view> Prelude() const
    {
        if (ports_.Reported == 0)
            return {kRegistered, kPortless};
        return {kRegistered, kPortless, kRegistered};
    }

    /// The connection failed, or no reply came.
    void OnFailure()
    {
        if (next_ != Exchange::Heartbeat) {
            next_ = next_ == Exchange::Registration ? next_ : Exchange::Heartbeat;
        } else if (++failures_ == kFailures) {
            failures_ = 0;
            next_ = Exchange::Registration;
        }
    }

    void OnReply(std::string_view line)
    {
        Message reply(line);
        if (!IsSame(reply.Command(), Name()))
            return OnFailure();
        std::int32_t result = -1;
        std::int32_t type = 0;
        std::int32_t port = 0;
        std::int32_t relayKey = 0;
        std::string address;
        for (Message::Pair pair; reply.Next(&pair);) {
            const std::int32_t number = NumberIn(pair.Value);
            if (IsSame(pair.Key, "Result"))
                result = number;
            if (IsSame(pair.Key, "DeviceNo") && IsRegistering())
                deviceNo_ = number;
            if (IsSame(pair.Key, "LinkType"))
                type = number;
            if (IsSame(pair.Key, "LinkAddr"))
                address = pair.Value.substr(0, 31);
            if (IsSame(pair.Key, "LinkPort"))
                port = number;
            if (IsSame(pair.Key, "RelayKey"))
                relayKey = number;
        }
        if (result != 0)
            return OnFailure();
        if (next_ == Exchange::Heartbeat)
            return OnHeartbeat(type, address, port, relayKey);
        next_ = next_ == Exchange::Relay ? Exchange::Session : Exchange::Heartbeat;
    }

    /// A relay without a handshake has connected, or a session has ended.
    void OnRelayed() { next_ = Exchange::Session; }
    void OnSessionEnd() { next_ = Exchange::Heartbeat; }

private:
    [[nodiscard]] bool IsRegistering() const
    {
        return next_ == Exchange::Registration || next_ == Exchange::Report;
    }

    [[nodiscard]] std::string_view Name() const
    {
        if (next_ == Exchange::Relay)
            return "RelayDeviceResponse";
        return IsRegistering() ? "SetDeviceInfoResponse" : "HeartBeatResponse";
    }

    void OnHeartbeat(std::int32_t type, const std::string &address, std::int32_t port,
                     std::int32_t relayKey)
    {
        failures_ = 0;
        if (type != 0) {
            linkType_ = type;
            linkAddr_ = address;
            linkPort_ = port;
            relayKey_ = relayKey;
            next_ = Exchange::Relay;
            return;
        }
        stunAddr_ = address;
        // A port counts when two consecutive replies name it; a different one revokes it.
        if (ports_.Previous != 0)
            stunPort_ = ports_.Previous == port ? port : 0;
        ports_.Previous = port;
        if (stunPort_ != ports_.Reported)
            next_ = Exchange::Report;
        ports_.Reported = stunPort_;
    }

    /// The state that the link keeps when it is started again.
    struct Ports
    {
        std::int32_t Previous = 0;
        std::int32_t Reported = 0;
    };
    static Ports ports_;

    Exchange next_ = Exchange::Registration;
    int failures_ = 0;
    std::int32_t deviceNo_ = 0;
    std::string stunAddr_ = "127.0.0.1";
    std::int32_t stunPort_ = 0;
    std::int32_t linkType_ = 0;
    std::string linkAddr_;
    std::int32_t linkPort_ = 0;
    std::int32_t relayKey_ = 0;
};

LinkModel::Ports LinkModel::ports_;

/// The address of a host, named or dotted.
in_addr_t AddressOf(const std::string &host)
{
    const char first = host.empty() ? '\0' : host[0];
    const bool isName = (first >= 'a' && first <= 'z') || (first >= 'A' && first <= 'Z');
    if (!isName)
        return inet_addr(host.c_str());
    return first == kKnownHost ? inet_addr(kHostAddress) : INADDR_NONE;
}

/// The server, and the peer of the relays. Stops the link after the last reply.
class Server : public AgentEnvironment
{
public:
    explicit Server(const std::vector<std::string_view> &replies) : replies_(link_.Prelude())
    {
        replies_.insert(replies_.end(), replies.begin(), replies.end());
    }

    /// Called in place of connect(2).
    int Connect(int socket, const sockaddr_in &address)
    {
        FinishConnection();
        if (AgentNow() < refusedUntil_ || IsDone())
            return Refuse();
        CheckTarget(address);
        if (replies_[next_].starts_with(kRefused)) {
            ++next_;
            refusedUntil_ = AgentNow() + kConnectSeconds;
            link_.OnFailure();
            return Refuse();
        }
        connection_.emplace(socket);
        step_ = Step::Asked;
        if (!link_.IsHandshakeWanted())
            link_.OnRelayed();
        // Every second connection is in progress first.
        isSlow_ = !isSlow_;
        errno = EINPROGRESS;
        return isSlow_ ? -1 : 0;
    }

    bool OnSocketWait() override
    {
        if (AgentNow() < refusedUntil_ || IsServed())
            return false;
        if (link_.Next() == Exchange::Session)
            Greet();
        else
            Serve();
        return true;
    }

    void OnClockWait() override
    {
        if (IsDone())
            ServerManager::GetInstance()->Stop();
    }

    bool OnThread() override { return !isOver_; }

    /// After the link has ended, which it must do only when it is told to.
    void Finish()
    {
        Require(IsDone(), "the link has ended before the last reply");
        FinishConnection();
        if (hasSessions_)
            EndSessions();
        RequireDescriptorsClosed();
    }

private:
    /// Starts the listener again, without threads.
    void EndSessions()
    {
        isOver_ = true;
        ClientManager::GetInstance()->Stop();
        Require(ClientManager::GetInstance()->Start(), "the listener does not start");
    }

    static int Refuse()
    {
        errno = ECONNREFUSED;
        return -1;
    }

    [[nodiscard]] bool IsDone() const { return next_ == replies_.size(); }
    [[nodiscard]] bool IsServed() const { return step_ == Step::Served; }

    void CheckTarget(const sockaddr_in &address) const
    {
        RequireEqual("address", AddressOf(link_.Host()), address.sin_addr.s_addr);
        RequireEqual("port", static_cast<std::uint16_t>(link_.Port()), ntohs(address.sin_port));
    }

    /// Receives the request and replies.
    void Serve()
    {
        RequireEqual("request", link_.Request(), connection_->Receive());
        step_ = Step::Served;
        if (IsDone())
            return link_.OnFailure();
        const std::string_view reply = replies_[next_++];
        if (reply.starts_with(kUnended)) {
            connection_->Send(reply);
            return link_.OnFailure();
        }
        connection_->Send(reply);
        connection_->Send("\n");
        if (reply.size() < kLongestLine)
            link_.OnReply(reply);
        else
            link_.OnFailure();
        if (link_.Next() == Exchange::Session)
            step_ = Step::Asked;
    }

    /// Sends as the client of a relayed session.
    void Greet()
    {
        if (step_ == Step::Asked) {
            connection_->Send("Hello?\n");
            step_ = Step::Greeted;
            return;
        }
        const std::string_view answer = connection_->Receive();
        Require(answer.starts_with(kGreeting), "a session's answer");
        Require(answer.find('\n') == answer.size() - 1, "a session's answer that is not one line");
        step_ = Step::Served;
    }

    /// Checks that the previous connection has ended: its session, or the link has closed it.
    void FinishConnection()
    {
        if (link_.Next() == Exchange::Session) {
            Require(step_ == Step::Served, "a relay that serves no session");
            link_.OnSessionEnd();
            hasSessions_ = true;
        } else if (connection_) {
            Require(connection_->IsClosed(), "a connection that is not closed");
        }
        connection_.reset();
    }

    enum class Step
    {
        Asked,   ///< the agent has connected
        Greeted, ///< the client of a session has sent Hello?
        Served,  ///< nothing more is sent
    };

    LinkModel link_;
    std::vector<std::string_view> replies_;
    std::size_t next_ = 0;
    std::time_t refusedUntil_ = 0;
    bool isSlow_ = false;
    bool hasSessions_ = false;
    bool isOver_ = false;
    Step step_ = Step::Served;
    std::optional<MemoryConnection> connection_;
};

Server *theServer = nullptr;

} // namespace
} // namespace nimbra::fuzz

// The linker prescribes the names of wrapping and wrapped functions.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" int __wrap_socket(int /*domain*/, int /*type*/, int /*protocol*/)
{
    return nimbra::fuzz::OpenDescriptor();
}

/// The panel of this fuzzer has no database: the link does without.
extern "C" int __wrap_sqlite3_open(const char * /*name*/, sqlite3 **connection)
{
    *connection = nullptr;
    return SQLITE_CANTOPEN;
}

extern "C" int __wrap_connect(int socket, const sockaddr *address, socklen_t /*size*/)
{
    sockaddr_in to = {};
    std::memcpy(&to, address, sizeof to);
    return nimbra::fuzz::theServer->Connect(socket, to);
}

extern "C" hostent *__wrap_gethostbyname(const char *name)
{
    static in_addr address = {inet_addr(nimbra::fuzz::kHostAddress)};
    static char *addresses[] = {reinterpret_cast<char *>(&address), nullptr};
    static hostent entry = {nullptr, nullptr, AF_INET, sizeof address, addresses};
    return name[0] == nimbra::fuzz::kKnownHost ? &entry : nullptr;
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)
{
    nimbra::ConfigManager &config = *nimbra::ConfigManager::GetInstance();
    config.CloudEnable = true;
    config.CloudServerAddr.Assign(nimbra::fuzz::kServer);
    config.CloudServerPort = nimbra::fuzz::kServerPort;
    config.DeviceId.Assign("0123456789");
    config.MacAddr.Assign("00:1A:2B:3C:4D:5E");
    config.ModelName.Assign("Dogwood 64");
    config.PrivateAddr.Assign("192.168.77.10");
    config.PrivatePort = 9000;
    return 0;
}

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t *data, std::size_t size, std::size_t maxSize);

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t *data, std::size_t size,
                                               std::size_t maxSize, unsigned seed)
{
    constexpr std::size_t kMostReplies = 24;
    return nimbra::fuzz::Shorten(data, LLVMFuzzerMutate(data, size, maxSize), seed,
                                 {maxSize, kMostReplies});
}

/// The input is the server's replies, one a line.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    using namespace nimbra::fuzz;
    const std::vector<std::string_view> replies =
        Split({reinterpret_cast<const char *>(data), size}, "\n");
    Server server(replies);
    theServer = &server;
    Require(nimbra::ServerManager::GetInstance()->Start(), "the link does not start");
    server.Finish();
    return 0;
}
