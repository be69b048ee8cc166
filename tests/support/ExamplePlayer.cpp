#include "support/ExamplePlayer.h"

#include "simulator/cloud/Relay.h"
#include "simulator/panel/SampleData.h"
#include "simulator/scenario/Player.h"
#include "simulator/scenario/Scenario.h"
#include "support/Files.h"
#include "support/Program.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <sstream>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace nimbra::test {

using simulator::ListenOn;
using simulator::MatchScenarioText;
using simulator::OpenListener;
using simulator::ParseScenarioLine;
using simulator::PlayerOptions;
using simulator::PlayScenario;
using simulator::Scenario;
using simulator::ScenarioAction;
using simulator::ScenarioLine;

namespace {

constexpr int kServerPort = 9500;
constexpr char kRegistration[] = "> SetDeviceInfo?*";
constexpr char kRegistrationAnswer[] = "< SetDeviceInfoResponse?Result=0&DeviceNo=7";

bool Matches(const std::string &pattern, const std::string &text)
{
    std::string shown;
    return MatchScenarioText(pattern, text, &shown);
}

std::string Differs(const std::string &expected, const std::string &came)
{
    return "expected: " + expected + "\n    came: " + came + "\n";
}

std::string NotALine(const std::string &line)
{
    return "not a line of such an example: " + line + "\n";
}

/// `text` as one word of a shell command.
std::string InSingleQuotes(const std::string &text)
{
    std::string word = "'";
    for (const char c : text)
        word += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return word + "'";
}

/// Whether a line of a scenario is allowed in a conversation of a document.
bool IsOfConversation(const ScenarioLine &line)
{
    constexpr std::array kActions{ScenarioAction::Send, ScenarioAction::Expect,
                                  ScenarioAction::SendFile, ScenarioAction::ExpectFile,
                                  ScenarioAction::Silence};
    return std::find(kActions.begin(), kActions.end(), line.Action) != kActions.end();
}

/// The next connection; none when no peer connects soon.
Descriptor Accept(const Descriptor &listener)
{
    pollfd wait = {listener.Get(), POLLIN, 0};
    if (poll(&wait, 1, static_cast<int>(milliseconds(kSoon).count())) < 1)
        return Descriptor();
    return Descriptor(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
}

/// The address of this machine that a connection was made to.
std::string OwnAddress(int socket)
{
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    std::array<char, INET_ADDRSTRLEN> text{};
    getsockname(socket, reinterpret_cast<sockaddr *>(&address), &size);
    inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
    return text.data();
}

/// Adds an address to this machine or deletes it; `verb` is that of the command ip.
ProgramResult ChangeAddress(const std::string &verb, const std::string &address)
{
    return RunProgram({"env", "PATH=/usr/sbin:/sbin:/usr/bin:/bin", "ip", "address", verb,
                       address + "/32", "dev", "lo"});
}

/// The value of a key in a line; empty if the line lacks it.
std::string ValueOf(const std::string &line, const std::string &key)
{
    const std::size_t place = line.find(key + "=");
    if (place == std::string::npos)
        return "";
    const std::size_t begin = place + key.size() + 1;
    return line.substr(begin, line.find('&', begin) - begin);
}

} // namespace

std::string PlayConversation(const Example &example, const ManagementClient &client,
                             const std::string &folder)
{
    Scenario scenario{folder, {}};
    if (example.Info != "conversation anonymous") {
        const panel::SampleLogin &login = panel::kController;
        scenario.Lines.push_back(
            {ScenarioAction::Send,
             std::string("Login?Username=") + login.Id + "&Password=" + login.Password, 1,
             example.Line});
        scenario.Lines.push_back(
            {ScenarioAction::Expect, "LoginResponse?Result=0", 1, example.Line});
    }
    int number = example.Line;
    for (const std::string &text : example.Lines) {
        std::optional<ScenarioLine> line = ParseScenarioLine(text);
        if (!line || !IsOfConversation(*line))
            return NotALine(text);
        line->Number = ++number;
        scenario.Lines.push_back(*line);
    }
    std::ostringstream shown;
    PlayerOptions options;
    options.Connect = [&client](std::string *) { return Descriptor(dup(client.Socket())); };
    options.Out = &shown;
    return PlayScenario(scenario, options) ? "" : shown.str();
}

std::string PlayDiscovery(const Example &example, const DiscoveryProbe &probe)
{
    for (const std::string &text : example.Lines) {
        const std::optional<ScenarioLine> line = ParseScenarioLine(text);
        if (line && line->Action == ScenarioAction::Send) {
            probe.Send(line->Text);
        } else if (line && line->Action == ScenarioAction::Expect && line->Count == 1) {
            const std::string answer = probe.Receive().value_or("(no answer)");
            if (!Matches(line->Text + "\n", answer))
                return Differs(line->Text, answer);
        } else if (line && line->Action == ScenarioAction::Silence) {
            if (const auto answer = probe.Receive(seconds(line->Count)))
                return Differs("(no answer)", *answer);
        } else {
            return NotALine(text);
        }
    }
    const std::optional<std::string> rest = probe.Receive(milliseconds(0));
    return rest ? Differs("(no more answers)", *rest) : "";
}

std::string PlayPython(const Example &program, const Example &output)
{
    std::string source;
    for (const std::string &line : program.Lines)
        source += line + "\n";
    std::string expected;
    for (const std::string &line : output.Lines)
        expected += line + "\n";
    WriteFile("/nimbra/example.py", source);
    const ProgramResult result =
        RunProgram({"env", "LC_ALL=C.UTF-8", "python3", "/nimbra/example.py"});
    const bool isGood = result.Status == 0 && Matches(expected, result.Output);
    return isGood ? "" : Differs(expected, result.Output);
}

std::string PlayConsole(const Example &example)
{
    // Each command is printed before it runs, like in a terminal, and gets the status of the one
    // before it in $?.
    std::string script = "cd /tmp\nexec 2>&1\n";
    for (const std::string &line : example.Lines)
        if (line.starts_with("$ "))
            script += "status=$?; printf '%s\\n' " + InSingleQuotes(line) + "; (exit $status)\n" +
                      line.substr(2) + "\n";
    const ProgramResult result = RunProgram(
        {"env", "-u", "XDG_CONFIG_HOME",
         "PATH=" + std::filesystem::path(NIMBRACTL_PATH).parent_path().string() + ":/usr/bin:/bin",
         "NIMBRA_HOST=192.168.77.10", "NIMBRA_USER=operator", "NIMBRA_PASSWORD=operate!1",
         "HOME=/tmp", "sh", "-c", script});
    std::istringstream output(result.Output);
    std::string came;
    for (const std::string &expected : example.Lines)
        if (!std::getline(output, came) || !Matches(expected, came))
            return Differs(expected, output ? came : "(nothing more)");
    return std::getline(output, came) ? Differs("(nothing more)", came) : "";
}

CloudPlayer::CloudPlayer() : server_(OpenListener(kServerPort, ListenOn::AllAddresses))
{}

CloudPlayer::~CloudPlayer()
{
    for (const std::string &address : addresses_)
        static_cast<void>(ChangeAddress("delete", address));
}

std::string CloudPlayer::Play(const Example &example)
{
    std::vector<std::vector<std::string>> connections{{}};
    for (const std::string &line : example.Lines) {
        if (line.empty())
            connections.emplace_back();
        else
            connections.back().push_back(line);
    }
    if (!connections[0].empty() && !Matches(kRegistration, connections[0][0]))
        connections.insert(connections.begin(), {kRegistration, kRegistrationAnswer});
    for (const std::vector<std::string> &lines : connections) {
        std::string failure = PlayConnection(lines);
        if (!failure.empty())
            return failure;
    }
    return "";
}

std::string CloudPlayer::PlayConnection(const std::vector<std::string> &lines)
{
    Relay relay = std::exchange(relay_, Relay());
    const bool isRelay = relay.Socket.IsOpen();
    Descriptor socket = Accept(isRelay ? relay.Socket : server_);
    relay.Socket.Close();
    if (!socket.IsOpen())
        return "the agent does not connect\n";
    ManagementClient panel(std::move(socket));
    if (isRelay && OwnAddress(panel.Socket()) != relay.Address)
        return Differs("a connection to " + relay.Address, "one to " + OwnAddress(panel.Socket()));
    std::string failure = PlayLines(panel, lines);
    if (!failure.empty())
        return failure;
    if (!isRelay && !panel.IsClosedByPeer())
        return "the agent does not close the connection\n";
    const std::optional<std::string> more = panel.ReadLine(milliseconds(0));
    return more ? Differs("(nothing more)", *more) : "";
}

std::string CloudPlayer::PlayLines(ManagementClient &panel, const std::vector<std::string> &lines)
{
    std::string unsent; // consecutive lines are sent together
    for (const std::string &line : lines) {
        if (line.starts_with("< ")) {
            unsent += line.substr(2) + "\n";
            Obey(line);
            continue;
        }
        if (!line.starts_with("> "))
            return NotALine(line);
        panel.Send(unsent);
        unsent.clear();
        const std::string came = panel.ReadLine().value_or("(no line)");
        if (!Matches(line.substr(2), came))
            return Differs(line.substr(2), came);
    }
    panel.Send(unsent);
    return "";
}

void CloudPlayer::Obey(const std::string &answer)
{
    const std::string type = ValueOf(answer, "LinkType");
    if (!answer.starts_with("< HeartBeatResponse?") || type.empty() || type == "0")
        return;
    relay_.Address = ValueOf(answer, "LinkAddr");
    if (addresses_.insert(relay_.Address).second)
        if (const ProgramResult ip = ChangeAddress("add", relay_.Address); ip.Status != 0)
            throw std::runtime_error(relay_.Address + " cannot be had: " + ip.Output);
    relay_.Socket =
        OpenListener(std::atoi(ValueOf(answer, "LinkPort").c_str()), ListenOn::AllAddresses);
}

} // namespace nimbra::test
