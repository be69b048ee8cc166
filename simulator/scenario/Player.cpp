#include "simulator/scenario/Player.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <ostream>
#include <thread>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace nimbra {

namespace {

using Clock = std::chrono::steady_clock;

/// Of the lines that came for one line of a scenario so many are all shown; of more, the first
/// ones.
constexpr int kFewRows = 5;
constexpr int kFirstRows = 3;

const char *const kBold = "\033[1m";
const char *const kFaint = "\033[2m";
const char *const kRed = "\033[31m";
const char *const kGreen = "\033[32m";
const char *const kCyan = "\033[36m";

/// `text` without bytes that a terminal would obey.
std::string Printable(const std::string &text)
{
    std::string result;
    for (const char byte : text) {
        const auto code = static_cast<unsigned char>(byte);
        if (code >= 0x20 && code != 0x7F) {
            result += byte;
            continue;
        }
        char escape[8];
        std::snprintf(escape, sizeof escape, "\\x%02X", code);
        result += escape;
    }
    return result;
}

/// One playing of one scenario.
class Player
{
public:
    Player(const Scenario &scenario, const PlayerOptions &stage) : talk_(scenario), stage_(stage) {}
    ~Player() { Leave(); }
    Player(const Player &) = delete;
    Player &operator=(const Player &) = delete;

    bool Play();

private:
    bool Step(const ScenarioLine &line);
    void ShowWords(const ScenarioLine &line);
    bool SendLine(const ScenarioLine &line);
    bool ExpectLines(const ScenarioLine &line);
    bool SendFile(const ScenarioLine &line);
    bool ExpectFile(const ScenarioLine &line);
    bool ExpectSilence(const ScenarioLine &line);
    bool Reconnect();
    bool Run(const ScenarioLine &line);
    bool ExpectOutput(const ScenarioLine &line);

    bool IsConnected();
    void Leave();
    bool Send(const std::string &bytes);
    bool Receive(Clock::time_point deadline);
    std::optional<std::string> ReceiveLine();
    bool NothingIsLeft();
    std::optional<std::string> ReadFile(const std::string &name);

    bool ShowMatch(const char *arrow, const ScenarioLine &line, int row, const std::string &text);
    void Show(const char *colour, const std::string &text);
    bool Fail(const std::string &expected, const std::string &received);
    [[nodiscard]] Clock::time_point Deadline() const
    {
        return Clock::now() + std::chrono::seconds(stage_.ReplySeconds);
    }

    const Scenario &talk_;
    const PlayerOptions &stage_;
    const ScenarioLine *line_ = nullptr;              ///< the line being played
    ScenarioAction before_ = ScenarioAction::Connect; ///< what the line before it was
    int socket_ = -1;
    std::string error_;               ///< why the last transfer ended
    std::string received_;            ///< bytes that no line of the scenario has asked for yet
    std::deque<std::string> printed_; ///< lines of the last command that no line has asked for yet
};

bool Player::Play()
{
    for (const ScenarioLine &line : talk_.Lines) {
        line_ = &line;
        if (!Step(line))
            return false;
        stage_.Out->flush();
        before_ = line.Action;
    }
    return NothingIsLeft();
}

bool Player::Step(const ScenarioLine &line)
{
    switch (line.Action) {
    case ScenarioAction::Title:
    case ScenarioAction::Remark:
        ShowWords(line);
        return true;
    case ScenarioAction::Send:
        return SendLine(line);
    case ScenarioAction::Expect:
        return ExpectLines(line);
    case ScenarioAction::SendFile:
        return SendFile(line);
    case ScenarioAction::ExpectFile:
        return ExpectFile(line);
    case ScenarioAction::Silence:
        return ExpectSilence(line);
    case ScenarioAction::Pause:
        Show(kFaint, "    (" + std::to_string(line.Count) + " s later)");
        std::this_thread::sleep_for(std::chrono::seconds(line.Count));
        return true;
    case ScenarioAction::Connect:
        return Reconnect();
    case ScenarioAction::Run:
        return Run(line);
    case ScenarioAction::ExpectOutput:
        return ExpectOutput(line);
    }
    return false;
}

void Player::ShowWords(const ScenarioLine &line)
{
    const bool isTitle = line.Action == ScenarioAction::Title;
    if (isTitle || (before_ != ScenarioAction::Remark && before_ != ScenarioAction::Title))
        Show("", "");
    Show(isTitle ? kBold : "", (isTitle ? "" : "  ") + line.Text);
}

bool Player::SendLine(const ScenarioLine &line)
{
    if (!NothingIsLeft() || !IsConnected())
        return false;
    Show(kCyan, "    --> " + Printable(line.Text));
    return Send(line.Text + "\n");
}

bool Player::ExpectLines(const ScenarioLine &line)
{
    if (!IsConnected())
        return false;
    for (int row = 0; row < line.Count; ++row) {
        const std::optional<std::string> text = ReceiveLine();
        if (!text)
            return Fail(line.Text, error_);
        if (!ShowMatch("<--", line, row, *text))
            return false;
    }
    return true;
}

bool Player::SendFile(const ScenarioLine &line)
{
    const std::optional<std::string> bytes = ReadFile(line.Text);
    if (!bytes || !IsConnected())
        return false;
    Show(kCyan, "    --> (" + std::to_string(bytes->size()) + " bytes: " + line.Text + ")");
    return Send(*bytes);
}

bool Player::ExpectFile(const ScenarioLine &line)
{
    const std::optional<std::string> bytes = ReadFile(line.Text);
    if (!bytes || !IsConnected())
        return false;
    const std::string what = std::to_string(bytes->size()) + " bytes";
    const Clock::time_point deadline = Deadline();
    while (received_.size() < bytes->size()) {
        if (!Receive(deadline))
            return Fail(what, std::to_string(received_.size()) + " bytes, then " + error_);
    }
    const std::string came = received_.substr(0, bytes->size());
    received_.erase(0, bytes->size());
    const auto [differs, unused] = std::mismatch(came.begin(), came.end(), bytes->begin());
    if (differs != came.end()) {
        return Fail("the bytes of " + line.Text,
                    "bytes that differ from place " + std::to_string(differs - came.begin()));
    }
    Show(kGreen, "    <-- (" + what + ", the same as " + line.Text + ")");
    return true;
}

bool Player::ExpectSilence(const ScenarioLine &line)
{
    if (!IsConnected())
        return false;
    const std::string what = "nothing for " + std::to_string(line.Count) + " s";
    if (!received_.empty() || Receive(Clock::now() + std::chrono::seconds(line.Count)))
        return Fail(what, received_);
    Show(kGreen, "    <-- (" + what + ")");
    return true;
}

bool Player::Reconnect()
{
    if (!NothingIsLeft())
        return false;
    Leave();
    Show(kFaint, "    (a new client connects)");
    return IsConnected();
}

bool Player::Run(const ScenarioLine &line)
{
    if (!NothingIsLeft())
        return false;
    Show(kCyan, "    $ " + line.Text);
    stage_.Out->flush();
    std::FILE *pipe = popen(line.Text.c_str(), "r");
    if (pipe == nullptr)
        return Fail("a command that runs", std::strerror(errno));
    std::string text;
    for (int byte = std::fgetc(pipe); byte != EOF; byte = std::fgetc(pipe)) {
        if (byte != '\n') {
            text += static_cast<char>(byte);
            continue;
        }
        printed_.push_back(text);
        text.clear();
    }
    if (!text.empty())
        printed_.push_back(text);
    if (pclose(pipe) != 0)
        return Fail("a command that succeeds", "one that fails");
    return true;
}

bool Player::ExpectOutput(const ScenarioLine &line)
{
    for (int row = 0; row < line.Count; ++row) {
        if (printed_.empty())
            return Fail(line.Text, "no further line");
        const std::string text = printed_.front();
        printed_.pop_front();
        if (!ShowMatch("|", line, row, text))
            return false;
    }
    return true;
}

/// Whether there is a connection, made now if there was none.
bool Player::IsConnected()
{
    if (socket_ >= 0)
        return true;
    socket_ = stage_.Connect(&error_);
    return socket_ >= 0 || Fail("a connection", error_);
}

void Player::Leave()
{
    if (socket_ >= 0)
        close(socket_);
    socket_ = -1;
    received_.clear();
}

bool Player::Send(const std::string &bytes)
{
    const Clock::time_point deadline = Deadline();
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t result =
            send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (result > 0) {
            sent += static_cast<std::size_t>(result);
            continue;
        }
        if (errno != EAGAIN && errno != EINTR)
            return Fail("bytes to be taken", std::strerror(errno));
        if (Clock::now() >= deadline)
            return Fail("bytes to be taken", "no more room within the limit");
        pollfd wait = {socket_, POLLOUT, 0};
        poll(&wait, 1, 100);
    }
    return true;
}

/// Waits for bytes and appends them to `received_`. When none came, says why in `error_`.
bool Player::Receive(Clock::time_point deadline)
{
    for (;;) {
        char bytes[4096];
        const ssize_t count = recv(socket_, bytes, sizeof bytes, MSG_DONTWAIT);
        if (count > 0) {
            received_.append(bytes, static_cast<std::size_t>(count));
            return true;
        }
        if (count == 0) {
            error_ = "the end of the connection";
            return false;
        }
        if (errno != EAGAIN && errno != EINTR) {
            error_ = std::strerror(errno);
            return false;
        }
        if (Clock::now() >= deadline) {
            error_ = "nothing within the limit";
            return false;
        }
        pollfd wait = {socket_, POLLIN, 0};
        poll(&wait, 1, 100);
    }
}

std::optional<std::string> Player::ReceiveLine()
{
    const Clock::time_point deadline = Deadline();
    std::size_t end = received_.find('\n');
    while (end == std::string::npos) {
        if (!Receive(deadline)) {
            if (!received_.empty())
                error_ = received_ + " and then " + error_;
            return std::nullopt;
        }
        end = received_.find('\n');
    }
    std::string line = received_.substr(0, end);
    received_.erase(0, end + 1);
    return line;
}

/// Whether the scenario has asked for everything that came.
bool Player::NothingIsLeft()
{
    if (!printed_.empty())
        return Fail("no further line", printed_.front());
    if (socket_ >= 0 && received_.empty())
        Receive(Clock::now());
    return received_.empty() || Fail("nothing more", received_);
}

std::optional<std::string> Player::ReadFile(const std::string &name)
{
    std::ifstream file(std::filesystem::path(talk_.Folder) / name, std::ios::binary);
    if (!file) {
        Fail("the file " + name, "none that can be read");
        return std::nullopt;
    }
    return std::string(std::istreambuf_iterator<char>(file), {});
}

/// Shows the `row`th text that came for `line`, from 0, if it matches.
bool Player::ShowMatch(const char *arrow, const ScenarioLine &line, int row,
                       const std::string &text)
{
    std::string shown;
    if (!MatchScenarioText(line.Text, text, &shown))
        return Fail(line.Text, text);
    const std::string indent = std::string("    ") + arrow + " ";
    if (row < kFirstRows || line.Count <= kFewRows)
        Show(kGreen, indent + Printable(shown));
    else if (row + 1 == line.Count)
        Show(kFaint, indent + "(" + std::to_string(line.Count - kFirstRows) + " more like these)");
    return true;
}

void Player::Show(const char *colour, const std::string &text)
{
    if (stage_.HasColour && *colour != '\0')
        *stage_.Out << colour << text << "\033[0m\n";
    else
        *stage_.Out << text << '\n';
}

bool Player::Fail(const std::string &expected, const std::string &received)
{
    Show(kRed, "    expected: " + Printable(expected));
    Show(kRed, "    received: " + Printable(received));
    if (line_ != nullptr)
        Show(kRed, "    at line " + std::to_string(line_->Number) + " of the scenario");
    stage_.Out->flush();
    return false;
}

} // namespace

bool PlayScenario(const Scenario &scenario, const PlayerOptions &stage)
{
    return Player(scenario, stage).Play();
}

} // namespace nimbra
