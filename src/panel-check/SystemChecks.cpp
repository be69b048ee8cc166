#include "base/Descriptor.h"
#include "base/PanelConstants.h"
#include "core/ConfigManager.h"
#include "panel-check/Checks.h"
#include "protocol/SocketOpen.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace nimbra::check {

namespace {

constexpr char kShell[] = "/bin/sh";
constexpr char kIfconfig[] = "/nimbra/bin/ifconfig";
constexpr char kCommandTool[] = "/nimbra/sbin/nimbra-cgi";
constexpr char kZoneDirectory[] = "/usr/share/zoneinfo/";
constexpr char kLocalZone[] = "/etc/localtime";

bool MayUse(const std::string &path, int access)
{
    return faccessat(AT_FDCWD, path.c_str(), access, AT_EACCESS) == 0;
}

/// Whether the path is that of a program. The reason why not is a failure.
bool CheckProgram(const char *path, const char *effect, Report *report)
{
    struct stat status = {};
    const std::string without = std::string(": without it, ") + effect;
    if (stat(path, &status) != 0)
        report->Fail(path, "is missing", "Install it" + without);
    else if (!S_ISREG(status.st_mode))
        report->Fail(path, "is not a program", "Replace it" + without);
    else if (!MayUse(path, X_OK))
        report->Fail(path, "may not be executed", "Give the agent's user that right" + without);
    else
        return true;
    return false;
}

/// Whether a program of this name is found as the shell finds it.
bool IsInPath(const std::string &name)
{
    const char *path = std::getenv("PATH");
    std::istringstream directories(path == nullptr ? "/usr/bin:/bin" : path);
    for (std::string directory; std::getline(directories, directory, ':');)
        if (MayUse(directory + "/" + name, X_OK))
            return true;
    return false;
}

/// In a process of its own: reads the MAC address as the agent does, and writes it to `output`.
[[noreturn]] void WriteMacAddress(int output)
{
    // Its own group, so that everything that it runs can be ended with it.
    setpgid(0, 0);
    const Descriptor quiet(open("/dev/null", O_RDWR | O_CLOEXEC));
    dup2(quiet.Get(), STDERR_FILENO);
    ConfigManager *config = ConfigManager::GetInstance();
    const bool isFound = config->ReadMacAddress() &&
                         write(output, config->MacAddr.Get(), config->MacAddr.View().size()) > 0;
    _exit(isFound ? 0 : 1);
}

/// Reads to the end of the pipe; nothing when that does not come in time.
std::optional<std::string> ReadInTime(int pipe, std::chrono::milliseconds limit)
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + limit;
    std::string text;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd input = {pipe, POLLIN, 0};
        if (left <= 0 || (poll(&input, 1, static_cast<int>(left)) < 0 && errno != EINTR))
            return std::nullopt;
        if (input.revents == 0)
            continue;
        std::array<char, 64> bytes{};
        const ssize_t count = read(pipe, bytes.data(), bytes.size());
        if (count <= 0)
            return text;
        text.append(bytes.data(), static_cast<std::size_t>(count));
    }
}

/// The MAC address; empty when the agent would find none, nothing when ifconfig does not end.
std::optional<std::string> MacAddress()
{
    constexpr std::chrono::seconds kLimit(5);
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0)
        return "";
    const auto input = Descriptor::AboveStandardInput(ends[0]);
    auto output = Descriptor::AboveStandardInput(ends[1]);
    const pid_t child = fork();
    if (child == 0)
        WriteMacAddress(output.Get());
    output.Close();
    if (child < 0)
        return "";
    setpgid(child, child);
    auto address = ReadInTime(input.Get(), kLimit);
    kill(-child, SIGKILL);
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    return address;
}

/// Checks that a port can be bound as the agent binds it.
void CheckPort(int type, int port, const char *name, Report *report)
{
    const std::string subject = std::string(name) + " port " + std::to_string(port);
    const Descriptor socket(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
    const int on = 1;
    const bool isTcp = type == SOCK_STREAM;
    // As the agent: a listener that has just ended does not keep its port.
    if (isTcp)
        setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const SocketAddress address(htonl(INADDR_ANY), port);
    if (bind(socket.Get(), address.Get(), SocketAddress::Size()) == 0)
        report->Ok(subject, "is free");
    else if (errno == EADDRINUSE)
        report->Fail(subject, "is in use",
                     "End the program that uses it; a running agent uses it as well");
    else
        report->Fail(subject, std::string("cannot be used: ") + std::strerror(errno),
                     "Check the network and the rights of the agent's user");
}

void CheckBroadcast(Report *report)
{
    const std::string subject = "UDP broadcast to port " + std::to_string(kScanAnswerPort);
    const Descriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(socket.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    const SocketAddress everyone(htonl(INADDR_BROADCAST), kScanAnswerPort);
    // Looks for a route; nothing is sent.
    if (connect(socket.Get(), everyone.Get(), SocketAddress::Size()) == 0)
        report->Ok(subject, "has a route");
    else
        report->Warn(subject, "has no route",
                     "Add a default route: without it, the agent does not answer discovery");
}

/// Whether the text begins as a POSIX time zone does: with a name and an offset.
bool IsPosixZone(const std::string &zone)
{
    std::size_t end = 0;
    if (zone.starts_with('<')) {
        end = zone.find('>');
        if (end == std::string::npos)
            return false;
        ++end;
    } else {
        constexpr char kLetters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
        constexpr std::size_t kShortestName = 3;
        end = std::min(zone.find_first_not_of(kLetters), zone.size());
        if (end < kShortestName)
            return false;
    }
    if (end < zone.size() && (zone[end] == '+' || zone[end] == '-'))
        ++end;
    return end < zone.size() && zone[end] >= '0' && zone[end] <= '9';
}

/// Whether the C library knows the time zone; it takes UTC for one that it does not know.
bool IsKnownZone(const std::string &zone)
{
    const std::string name = zone.starts_with(':') ? zone.substr(1) : zone;
    const std::string file = name.starts_with('/') ? name : kZoneDirectory + name;
    return name.empty() || name == "UTC" || MayUse(file, R_OK) || IsPosixZone(name);
}

} // namespace

void CheckUser(Report *report)
{
    const uid_t user = geteuid();
    report->Ok("user", user == 0 ? "root; the rights below are those of root"
                                 : "number " + std::to_string(user));
}

void CheckShell(Report *report)
{
    if (CheckProgram(kShell, "the agent cannot run the panel's programs", report))
        report->Ok(kShell, "can be executed");
    if (IsInPath("grep"))
        report->Ok("grep", "is in the PATH");
    else
        report->Fail("grep", "is not in the PATH",
                     "Install it: without it, the agent does not find the MAC address");
}

void CheckIfconfig(Report *report)
{
    if (!CheckProgram(kIfconfig, "the agent does not start", report))
        return;
    const auto address = MacAddress();
    const std::string interface = kWiredInterface;
    if (!address)
        report->Fail(kIfconfig, "does not end within 5 seconds",
                     "Replace it: the agent waits for it and does not start");
    else if (address->empty())
        report->Fail(kIfconfig, "prints no line with 'HWaddr' and an address for " + interface,
                     "Install one that prints the traditional form, such as BusyBox's, or name the "
                     "wired interface " +
                         interface + ": the agent does not start, and logs nothing");
    else
        report->Ok(kIfconfig, "prints " + *address + " for " + interface);
}

void CheckCommandTool(Report *report)
{
    if (CheckProgram(kCommandTool, "doors do not move and no change is audited", report))
        report->Ok(kCommandTool, "can be executed");
}

void CheckImageDirectory(Report *report)
{
    struct stat status = {};
    const std::string effect = ": user images can be neither stored nor read";
    if (stat(kImageDirectory, &status) != 0)
        report->Fail(kImageDirectory, "is missing", "Create it" + effect);
    else if (!S_ISDIR(status.st_mode))
        report->Fail(kImageDirectory, "is not a directory", "Replace it" + effect);
    else if (!MayUse(kImageDirectory, R_OK | W_OK | X_OK))
        report->Fail(kImageDirectory, "may not be read and written",
                     "Give the agent's user that right" + effect);
    else
        report->Ok(kImageDirectory, "can be read and written");
}

void CheckPorts(Report *report)
{
    CheckPort(SOCK_STREAM, kClientPort, "TCP", report);
    CheckPort(SOCK_DGRAM, kScanRequestPort, "UDP", report);
    CheckBroadcast(report);
}

void CheckDescriptors(Report *report)
{
    // The agent holds 6; a session takes one, and up to six more while it serves a request.
    constexpr std::uint64_t kLeast = 16;
    constexpr std::uint64_t kEnough = 64;
    constexpr char kAction[] = "Raise the limit of open files (ulimit -n, LimitNOFILE=): a session "
                               "takes one, and some while it serves a request";
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    std::uint64_t free = limit.rlim_cur;
    std::ifstream files("/proc/sys/fs/file-nr");
    std::uint64_t used = 0;
    std::uint64_t unused = 0;
    std::uint64_t all = 0;
    if (files >> used >> unused >> all)
        free = std::min(free, all - std::min(all, used - unused));
    const std::string text = std::to_string(free) + " can be open";
    if (free < kLeast)
        report->Fail("descriptors", text, kAction);
    else if (free < kEnough)
        report->Warn("descriptors", text, kAction);
    else
        report->Ok("descriptors", text);
}

void CheckClock(std::time_t now, Report *report)
{
    constexpr std::int64_t kEarliest = 1767225600; // 2026-01-01
    constexpr std::int64_t kLatest = 2147483647;   // 2038-01-19
    std::tm calendar = {};
    std::array<char, 64> text{};
    if (gmtime_r(&now, &calendar) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &calendar) == 0)
        text[0] = '\0';
    if (now < kEarliest)
        report->Warn("clock", std::string(text.data()) + " is in the past",
                     "Set the clock: times of the cloud link and dates in requests are wrong");
    else if (now > kLatest)
        report->Warn("clock", std::string(text.data()) + " does not fit into 32 bits",
                     "Set the clock: the panel's databases hold no such time");
    else
        report->Ok("clock", text.data());
}

void CheckTimeZone(std::time_t now, Report *report)
{
    std::tm calendar = {};
    std::array<char, 64> text{};
    if (localtime_r(&now, &calendar) == nullptr ||
        std::strftime(text.data(), text.size(), "%H:%M:%S %Z (%z)", &calendar) == 0)
        text[0] = '\0';
    const char *zone = std::getenv("TZ");
    const std::string local = std::string("local time is ") + text.data();
    if (zone != nullptr && !IsKnownZone(zone))
        report->Warn("time zone", std::string("TZ=") + zone + " is not known; " + local,
                     "Install the time zones (tzdata), or correct TZ");
    else if (zone == nullptr && !MayUse(kLocalZone, R_OK))
        report->Warn("time zone", std::string(kLocalZone) + " is missing; " + local,
                     "Create it, or set TZ for the agent, unless UTC is meant");
    else
        report->Ok("time zone", local);
}

} // namespace nimbra::check
