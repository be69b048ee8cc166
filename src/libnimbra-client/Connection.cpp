#include "libnimbra-client/Connection.h"

#include <algorithm>

namespace nimbra::client {

namespace {

using std::chrono::seconds;

/// An answer that is not there by now may never come: the panel is then asked for a sign of life.
constexpr seconds kProbeAfter(3);

/// The panel ends a session between 10 and 15 seconds after its last line.
constexpr seconds kSilenceLimit(9);

/// The panel stops sending a photograph 5 seconds after it began.
constexpr seconds kBytesLimit(7);

/// So many unanswered heartbeats mean that nobody is there.
constexpr std::size_t kHeartbeatsOwed = 4;

constexpr std::size_t kChunk = std::size_t{16} * 1024;

constexpr char kProbe[] = "Hello?";
constexpr char kProbeAnswer[] = "HelloResponse?";
constexpr char kHeartbeatAnswer[] = "HeartbeatResponse?";

bool BeginsWith(std::string_view text, std::string_view beginning)
{
    return text.substr(0, beginning.size()) == beginning;
}

} // namespace

Session::Connection::Connection(const SessionOptions &options)
    : options_(options), lines_(ConnectTo(options.Host, options.Port,
                                          Clock::now() + options.ConnectLimit, options.IsCancelled),
                                options.IsCancelled)
{}

void Session::Connection::SendLine(std::string_view line)
{
    isUnfinished_ = true;
    Send(line);
}

std::optional<std::string> Session::Connection::ReadFirst(std::string_view beginning, bool mayProbe)
{
    const Deadline deadline = Clock::now() + options_.AnswerLimit;
    const Deadline probeTime = mayProbe ? Clock::now() + kProbeAfter : deadline;
    bool hasProbed = false;
    for (;;) {
        const bool isLast = hasProbed || probeTime >= deadline;
        std::optional<std::string> line = lines_.ReadLine(isLast ? deadline : probeTime);
        if (!line && isLast)
            throw Unreachable("The panel stopped answering: it sent nothing for " +
                              std::to_string(options_.AnswerLimit / seconds(1)) + " seconds.");
        if (!line) {
            Send(kProbe);
            hasProbed = true;
            continue;
        }
        if (IsOwed(*line))
            continue;
        owed_.clear(); // what was asked before would have been answered before
        // Answers come in the order of the lines: the probe's cannot overtake the answer to a line
        // that the panel has taken.
        if (hasProbed && BeginsWith(*line, kProbeAnswer))
            return std::nullopt;
        if (!BeginsWith(*line, beginning) || line->find("Response?Result=") == std::string::npos)
            FailStrange();
        if (hasProbed)
            owed_.emplace_back(kProbeAnswer);
        return line;
    }
}

std::string Session::Connection::ReadNext()
{
    std::optional<std::string> line = lines_.ReadLine(Clock::now() + options_.AnswerLimit);
    if (!line)
        throw Unreachable("The panel stopped in the middle of its answer.");
    return *line;
}

std::vector<char> Session::Connection::ReadBytes(std::size_t count, const Progress &progress)
{
    std::vector<char> bytes;
    const auto limit = std::min<std::chrono::milliseconds>(kBytesLimit, options_.AnswerLimit);
    while (bytes.size() < count) {
        const std::vector<char> some = lines_.ReadSome(count - bytes.size(), Clock::now() + limit);
        if (some.empty())
            break;
        bytes.insert(bytes.end(), some.begin(), some.end());
        if (progress)
            progress(bytes.size(), count);
    }
    return bytes;
}

bool Session::Connection::SendBytes(const std::vector<char> &bytes, const Progress &progress)
{
    for (std::size_t sent = 0; sent < bytes.size();) {
        const std::size_t count = std::min(kChunk, bytes.size() - sent);
        if (!lines_.Send({bytes.data() + sent, count}, Clock::now() + options_.AnswerLimit, true))
            return false;
        sent += count;
        if (progress)
            progress(sent, bytes.size());
    }
    return true;
}

void Session::Connection::SendHeartbeat()
{
    while (!owed_.empty()) {
        const std::optional<std::string> line = lines_.ReadLine(Clock::now());
        if (!line)
            break;
        static_cast<void>(IsOwed(*line));
    }
    if (owed_.size() >= kHeartbeatsOwed)
        throw Unreachable("The panel stopped answering.");
    Send("Heartbeat?");
    owed_.emplace_back(kHeartbeatAnswer);
}

bool Session::Connection::IsUsable()
{
    return !isUnfinished_ && Clock::now() - lastSent_ < kSilenceLimit && !lines_.HasEnded();
}

void Session::Connection::Send(std::string_view line)
{
    lines_.Send(std::string(line) + "\n", Clock::now() + options_.AnswerLimit);
    lastSent_ = Clock::now();
}

bool Session::Connection::IsOwed(std::string_view line)
{
    if (owed_.empty() || !BeginsWith(line, owed_.front()))
        return false;
    owed_.pop_front();
    return true;
}

} // namespace nimbra::client
