#include "simulator/fleet/FleetPanel.h"

#include "base/Descriptor.h"
#include "simulator/fleet/ProcessStatus.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace nimbra::simulator {

namespace fs = std::filesystem;

namespace {

/// Run in the panel's network, with its address, its MAC address, the address of the server and the
/// directory of the programs. A panel has a /tmp, a /nimbra and an /etc/hosts of its own too.
constexpr char kRunPanel[] = R"(set -e
PATH=$PATH:/usr/sbin:/sbin
ip link set lo up
ip link set eth0 address "$2" up
ip addr add "$1" peer "$3" dev eth0
ip route add default via "$3"
exec "$4/nimbra-sandbox" --host-network -- sh -c '
    set -e
    echo "$3 )" NIMBRA_CLOUD_HOST R"(" >>/etc/hosts
    "$4/nimbra-sample-panel" --cloud --address "$1" --mac "$2" >/dev/null
    exec "$4/nimbra-agent"' panel "$@"
)";

constexpr int kInByte = 250;

std::string AddressOf(int number)
{
    return "10.77." + std::to_string(1 + number / kInByte) + "." +
           std::to_string(1 + number % kInByte);
}

std::string MacAddressOf(int number)
{
    std::array<char, 18> text{};
    std::snprintf(text.data(), text.size(), "02:1a:2b:00:%02x:%02x",
                  static_cast<unsigned>(number) / 256 % 256, static_cast<unsigned>(number) % 256);
    return text.data();
}

std::string LinkOf(int number)
{
    return "panel" + std::to_string(number);
}

void RunIp(const std::string &arguments)
{
    if (std::system(("PATH=$PATH:/usr/sbin:/sbin; ip " + arguments).c_str()) != 0)
        throw std::runtime_error("failed: ip " + arguments);
}

[[noreturn]] void RunAsPanel(int number, const fs::path &programs, pid_t parent)
{
    const std::string log = "/tmp/agent-" + std::to_string(number) + ".log";
    const Descriptor file(open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (!file.IsOpen() || unshare(CLONE_NEWNET) != 0 || getppid() != parent)
        _exit(EXIT_FAILURE);
    // Goes on when the parent has laid the link.
    std::raise(SIGSTOP);
    dup2(file.Get(), STDOUT_FILENO);
    dup2(file.Get(), STDERR_FILENO);
    execl("/bin/sh", "sh", "-c", kRunPanel, "panel", AddressOf(number).c_str(),
          MacAddressOf(number).c_str(), kFleetServerAddress, programs.c_str(), nullptr);
    _exit(EXIT_FAILURE);
}

} // namespace

FleetPanel::FleetPanel(int number, const fs::path &programs) : number_(number)
{
    const pid_t parent = getpid();
    sandbox_ = fork();
    if (sandbox_ == -1)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (sandbox_ == 0)
        RunAsPanel(number, programs, parent);
    int status = 0;
    waitpid(sandbox_, &status, WUNTRACED);
    if (!WIFSTOPPED(status))
        throw std::runtime_error("no network for panel " + std::to_string(number));
    RunIp("link add " + LinkOf(number) + " type veth peer name eth0 netns " +
          std::to_string(sandbox_));
    RunIp("addr add " + std::string(kFleetServerAddress) + " peer " + AddressOf(number) + " dev " +
          LinkOf(number));
    RunIp("link set " + LinkOf(number) + " up");
    kill(sandbox_, SIGCONT);
}

FleetPanel::~FleetPanel()
{
    kill(sandbox_, SIGTERM);
    waitpid(sandbox_, nullptr, 0);
}

int FleetPanel::NumberOf(const std::string &macAddress)
{
    unsigned high = 0;
    unsigned low = 0;
    if (std::sscanf(macAddress.c_str(), "%*2x:%*2x:%*2x:%*2x:%2x:%2x", &high, &low) != 2)
        return 0;
    return static_cast<int>(high * 256 + low);
}

std::uint64_t FleetPanel::Connections() const
{
    // Two lines: the names of the counters, and the counters.
    std::ifstream file("/proc/" + std::to_string(sandbox_) + "/net/snmp");
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with("Tcp:"))
            continue;
        std::istringstream names(line);
        std::getline(file, line);
        std::istringstream counters(line);
        for (std::string name, counter; names >> name && counters >> counter;)
            if (name == "ActiveOpens")
                return std::stoull(counter);
    }
    throw std::runtime_error("no counters of panel " + std::to_string(number_));
}

std::uint64_t FleetPanel::Bytes() const
{
    std::ifstream file("/proc/self/net/dev");
    const std::string link = LinkOf(number_) + ":";
    for (std::string line; std::getline(file, line);) {
        std::istringstream stream(line);
        std::string name;
        // Bytes received and seven other counters, then bytes sent.
        std::array<std::uint64_t, 9> counters{};
        stream >> name;
        for (std::uint64_t &counter : counters)
            stream >> counter;
        if (name == link)
            return counters.front() + counters.back();
    }
    throw std::runtime_error("no link of panel " + std::to_string(number_));
}

std::size_t FleetPanel::Descriptors() const
{
    std::error_code error;
    const fs::directory_iterator entries(AgentDirectory() / "fd", error);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

std::size_t FleetPanel::Threads() const
{
    return NumberInStatus(AgentDirectory(), "Threads");
}

std::size_t FleetPanel::ResidentKiB() const
{
    return NumberInStatus(AgentDirectory(), "VmRSS");
}

fs::path FleetPanel::AgentDirectory() const
{
    const std::string number = std::to_string(sandbox_);
    std::ifstream children("/proc/" + number + "/task/" + number + "/children");
    std::string agent;
    children >> agent;
    return fs::path("/proc") / (agent.empty() ? "none" : agent);
}

} // namespace nimbra::simulator
