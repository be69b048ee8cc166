#include "simulator/scenario/Player.h"

#include "libnimbra-client/LineSocket.h"

#include <algorithm>
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
#include <utility>

namespace nimbra::simulator {

namespace {

/// Of the lines that came for one line of a scenario so many are all shown; of more, the first
/// ones.
constexpr int kFewRows = 5;
constexpr int kFirstRows = 3;

const char *const kBold = "\033[1m";
const char *const kFaint = "\033[2m";
const char *const kRed = "\033[31m";
const char *const kGreen = "\033[32m";
const char *const kCyan = "\033[36m";

/// `text` with control bytes escaped, which a terminal would execute.
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

/// Plays one scenario once.
class Player
{
public:
    Player(const Scenario &scenario, const PlayerOptions &options)
        : scenario_(scenario), options_(options)
    {}

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
    bool Send(const std::string &bytes);
    bool Receive(Deadline deadline);
    std::optional<std::string> ReceiveLine();
    bool NothingIsLeft();
    std::optional<std::string> ReadFile(const std::string &name);

    bool ShowMatch(const char *arrow, const ScenarioLine &line, int row, const std::string &text);
    void Show(const char *colour, const std::string &text);
    bool Fail(const std::string &expected, const std::string &received);
    [[nodiscard]] Deadline ReplyDeadline() const
    {
        return SocketClock::now() + std::chrono::seconds(options_.ReplySeconds);
    }

    const Scenario &scenario_;
    const PlayerOptions &options_;
    const ScenarioLine *line_ = nullptr;              ///< the line being played
    ScenarioAction before_ = ScenarioAction::Connect; ///< what the line before it was
    LineSocket socket_;
    std::string error_;               ///< why the last transfer ended
    std::deque<std::string> printed_; ///< lines of the last command that no line has asked for yet
};

bool Player::Play()
{
    for (const ScenarioLine &line : scenario_.Lines) {
        line_ = &line;
        if (!Step(line))
            return false;
        options_.Out->flush();
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
    const Deadline deadline = ReplyDeadline();
    while (socket_.Received().size() < bytes->size()) {
        if (!Receive(deadline))
            return Fail(what, std::to_string(socket_.Received().size()) + " bytes, then " + error_);
    }
    const std::string came = socket_.TakeBytes(bytes->size());
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
    if (!socket_.Received().empty() ||
        Receive(SocketClock::now() + std::chrono::seconds(line.Count)))
        return Fail(what, socket_.Received());
    Show(kGreen, "    <-- (" + what + ")");
    return true;
}

bool Player::Reconnect()
{
    if (!NothingIsLeft())
        return false;
    socket_ = LineSocket();
    Show(kFaint, "    (a new client connects)");
    return IsConnected();
}

bool Player::Run(const ScenarioLine &line)
{
    if (!NothingIsLeft())
        return false;
    Show(kCyan, "    $ " + line.Text);
    options_.Out->flush();
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
    if (socket_.IsOpen())
        return true;
    socket_ = LineSocket(options_.Connect(&error_));
    return socket_.IsOpen() || Fail("a connection", error_);
}

bool Player::Send(const std::string &bytes)
{
    std::string_view rest = bytes;
    const IoResult result = socket_.Send(&rest, ReplyDeadline());
    if (result.Status == IoStatus::TimedOut)
        return Fail("bytes to be taken", "not all taken within the limit");
    return result.IsDone() || Fail("bytes to be taken", std::strerror(result.Error));
}

/// Receives bytes. When none came, the reason is in `error_`.
bool Player::Receive(Deadline deadline)
{
    const IoResult result = socket_.Receive(deadline);
    if (result.Status == IoStatus::Closed)
        error_ = "the end of the connection";
    else if (result.Status == IoStatus::TimedOut)
        error_ = "nothing within the limit";
    else
        error_ = std::strerror(result.Error);
    return result.IsDone();
}

std::optional<std::string> Player::ReceiveLine()
{
    const Deadline deadline = ReplyDeadline();
    for (;;) {
        std::optional<std::string> line = socket_.TakeLine();
        if (line)
            return line;
        if (Receive(deadline))
            continue;
        if (!socket_.Received().empty())
            error_ = socket_.Received() + " and then " + error_;
        return std::nullopt;
    }
}

/// Whether the scenario has asked for everything that came.
bool Player::NothingIsLeft()
{
    if (!printed_.empty())
        return Fail("no further line", printed_.front());
    if (socket_.IsOpen() && socket_.Received().empty())
        Receive(SocketClock::now());
    return socket_.Received().empty() || Fail("nothing more", socket_.Received());
}

std::optional<std::string> Player::ReadFile(const std::string &name)
{
    std::ifstream file(std::filesystem::path(scenario_.Folder) / name, std::ios::binary);
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
    if (options_.HasColour && *colour != '\0')
        *options_.Out << colour << text << "\033[0m\n";
    else
        *options_.Out << text << '\n';
}

bool Player::Fail(const std::string &expected, const std::string &received)
{
    Show(kRed, "    expected: " + Printable(expected));
    Show(kRed, "    received: " + Printable(received));
    if (line_ != nullptr)
        Show(kRed, "    at line " + std::to_string(line_->Number) + " of the scenario");
    options_.Out->flush();
    return false;
}

} // namespace

bool PlayScenario(const Scenario &scenario, const PlayerOptions &options)
{
    return Player(scenario, options).Play();
}

} // namespace nimbra::simulator
