#include "libnimbra-client/Connection.h"

#include <algorithm>
#include <cstring>

#include <nimbra-client/Error.h>

namespace nimbra::client {

namespace {

using std::chrono::seconds;

/// A response that has not arrived by then may never arrive: a probe is sent.
constexpr seconds kProbeAfter(3);

/// The panel ends a session between 10 and 15 seconds after its last line.
constexpr seconds kSilenceLimit(9);

/// The panel stops sending a user image 5 seconds after its first byte.
constexpr seconds kBytesLimit(7);

/// The panel is lost when so many heartbeats have no response.
constexpr std::size_t kHeartbeatsExpected = 4;

/// No line of the protocol is nearly as long.
constexpr std::size_t kLongestLine = 8192;

constexpr std::size_t kChunk = std::size_t{16} * 1024;

constexpr char kProbe[] = "Hello?";
constexpr char kProbeResponse[] = "HelloResponse?";
constexpr char kHeartbeatResponse[] = "HeartbeatResponse?";

bool BeginsWith(std::string_view text, std::string_view beginning)
{
    return text.substr(0, beginning.size()) == beginning;
}

/// Throws for a result that leaves the connection of no use.
void FailOn(const IoResult &result)
{
    if (result.Status == IoStatus::Cancelled)
        throw CancelledError();
    if (result.Status == IoStatus::Closed)
        throw ConnectionError("The panel closed the connection.");
    if (result.Status == IoStatus::Failed)
        throw ConnectionError(std::string("The connection to the panel broke: ") +
                              std::strerror(result.Error) + ".");
}

} // namespace

Session::Connection::Connection(const SessionOptions &options)
    : options_(options),
      lines_(ConnectTo(options.Host, options.Port, Clock::now() + options.ConnectTimeout,
                       options.IsCancelled),
             options.IsCancelled)
{}

void Session::Connection::SendLine(std::string_view line)
{
    isUnfinished_ = true;
    Send(line);
}

std::optional<std::string> Session::Connection::ReadFirst(std::string_view beginning,
                                                          OnSilence onSilence)
{
    const Deadline deadline = Clock::now() + options_.ResponseTimeout;
    const Deadline probeTime =
        onSilence == OnSilence::Probe ? Clock::now() + kProbeAfter : deadline;
    bool hasProbed = false;
    for (;;) {
        const bool isLast = hasProbed || probeTime >= deadline;
        std::optional<std::string> line = ReadLine(isLast ? deadline : probeTime);
        if (!line && isLast)
            throw ConnectionError("The panel stopped responding: it sent nothing for " +
                                  std::to_string(options_.ResponseTimeout / seconds(1)) +
                                  " seconds.");
        if (!line) {
            Send(kProbe);
            hasProbed = true;
            continue;
        }
        if (IsExpected(*line))
            continue;
        expected_.clear(); // responses to earlier lines would have arrived before
        // Responses arrive in the order of the lines: the probe's cannot overtake the response
        // to a line that the panel has received.
        if (hasProbed && BeginsWith(*line, kProbeResponse))
            return std::nullopt;
        if (!BeginsWith(*line, beginning) || line->find("Response?Result=") == std::string::npos)
            FailStrange();
        if (hasProbed)
            expected_.emplace_back(kProbeResponse);
        return line;
    }
}

std::string Session::Connection::ReadNext()
{
    std::optional<std::string> line = ReadLine(Clock::now() + options_.ResponseTimeout);
    if (!line)
        throw ConnectionError("The panel stopped in the middle of its response.");
    return *line;
}

std::vector<char> Session::Connection::ReadBytes(std::size_t count,
                                                 const ProgressCallback &progress)
{
    std::vector<char> bytes;
    const auto limit = std::min<std::chrono::milliseconds>(kBytesLimit, options_.ResponseTimeout);
    while (bytes.size() < count) {
        if (lines_.Received().empty() && !Receive(Clock::now() + limit))
            break;
        const std::string some = lines_.TakeBytes(count - bytes.size());
        bytes.insert(bytes.end(), some.begin(), some.end());
        if (progress)
            progress(bytes.size(), count);
    }
    return bytes;
}

bool Session::Connection::SendBytes(const std::vector<char> &bytes,
                                    const ProgressCallback &progress)
{
    for (std::size_t sent = 0; sent < bytes.size();) {
        const std::size_t count = std::min(kChunk, bytes.size() - sent);
        if (!Send({bytes.data() + sent, count}, OnReceive::Interrupt))
            return false;
        sent += count;
        if (progress)
            progress(sent, bytes.size());
    }
    return true;
}

void Session::Connection::SendHeartbeat()
{
    while (!expected_.empty()) {
        const std::optional<std::string> line = ReadLine(Clock::now());
        if (!line)
            break;
        static_cast<void>(IsExpected(*line));
    }
    if (expected_.size() >= kHeartbeatsExpected)
        throw ConnectionError("The panel stopped responding.");
    Send("Heartbeat?");
    expected_.emplace_back(kHeartbeatResponse);
}

bool Session::Connection::IsUsable()
{
    return !isUnfinished_ && Clock::now() - lastSent_ < kSilenceLimit && !lines_.HasEnded();
}

void Session::Connection::Send(std::string_view line)
{
    Send(std::string(line) + "\n", OnReceive::SendOn);
    lastSent_ = Clock::now();
}

bool Session::Connection::Send(std::string_view bytes, OnReceive onReceive)
{
    const IoResult result = lines_.Send(&bytes, Clock::now() + options_.ResponseTimeout, onReceive);
    FailOn(result);
    if (result.Status == IoStatus::TimedOut)
        throw ConnectionError("The panel stopped taking what is sent to it.");
    return result.Status != IoStatus::Interrupted;
}

std::optional<std::string> Session::Connection::ReadLine(Deadline deadline)
{
    for (;;) {
        std::optional<std::string> line = lines_.TakeLine();
        if (line)
            return line;
        if (lines_.Received().size() > kLongestLine)
            FailStrange();
        if (!Receive(deadline))
            return std::nullopt;
    }
}

bool Session::Connection::Receive(Deadline deadline)
{
    const IoResult result = lines_.Receive(deadline);
    FailOn(result);
    return result.IsDone();
}

bool Session::Connection::IsExpected(std::string_view line)
{
    if (expected_.empty() || !BeginsWith(line, expected_.front()))
        return false;
    expected_.pop_front();
    return true;
}

} // namespace nimbra::client
