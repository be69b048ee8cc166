#include "simulator/sandbox/Network.h"

#include "simulator/sandbox/SystemCall.h"

#include <array>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <string>

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>

namespace nimbra::sandbox {

/// Has `ip` of iproute2 run the commands, one a line, in the caller's network namespace, or in the
/// one given.
static void RunIp(const std::string &commands, int otherNetwork = -1)
{
    Pipe input = MakePipe();
    // A pipe takes this much at once: nobody needs to be reading yet.
    Check(static_cast<int>(write(input.WriteEnd.Get(), commands.data(), commands.size())), "pipe");
    input.WriteEnd.Close();
    const pid_t child = Check(fork(), "fork");
    if (child == 0) {
        // PATH of other users than root often lacks the directories that contain ip.
        static constexpr std::array<const char *, 4> kPlaces{"/usr/sbin/ip", "/sbin/ip",
                                                             "/usr/bin/ip", "/bin/ip"};
        if (otherNetwork == -1 || setns(otherNetwork, CLONE_NEWNET) == 0) {
            dup2(input.ReadEnd.Get(), STDIN_FILENO);
            for (const char *ip : kPlaces)
                execl(ip, "ip", "-batch", "-", static_cast<char *>(nullptr));
        }
        _exit(127);
    }
    int status = 0;
    Check(waitpid(child, &status, 0), "waitpid");
    if (WIFEXITED(status) && WEXITSTATUS(status) == 127)
        throw std::runtime_error("network: the program 'ip' (package iproute2) cannot be run");
    if (status != 0)
        throw std::runtime_error("network: 'ip' failed");
}

/// Waits until eth0 is running: the kernel reports that some moments after it is set up.
static void AwaitCarrier()
{
    const Descriptor probe(Check(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket"));
    ifreq request{};
    std::strcpy(request.ifr_name, "eth0");
    constexpr timespec kPause{0, 500'000};
    constexpr int kPauses = 10'000;
    bool running = false;
    for (int pause = 0; pause < kPauses && !running; ++pause) {
        running = ioctl(probe.Get(), SIOCGIFFLAGS, &request) == 0 &&
                  (request.ifr_flags & IFF_RUNNING) != 0;
        if (!running)
            nanosleep(&kPause, nullptr);
    }
    if (!running)
        throw std::runtime_error("network: eth0 does not come up");
}

void MakeNetwork(const std::filesystem::path &secondHost)
{
    const std::string panel = kPanelAddress;
    const std::string other = kSecondHostAddress;
    Check(unshare(CLONE_NEWNET), "network namespace");
    // Without close-on-exec: ip opens it through its own /proc/self/fd.
    const Descriptor otherNetwork = OpenFile("/proc/self/ns/net", O_RDONLY);
    const Descriptor inherited(Check(dup(otherNetwork.Get()), "dup"));
    Check(unshare(CLONE_NEWNET), "network namespace");

    // The ends get different indexes: the kernel is a second late with the news of a link whose
    // index is that of its other end.
    RunIp("link add eth0 index 7 address 00:1a:2b:3c:4d:5e type veth peer name eth0 netns"
          " /proc/self/fd/" +
          std::to_string(inherited.Get()) + "\n");
    RunIp("link set lo up\naddr add " + other + "/24 brd + dev eth0\nlink set eth0 up\n" +
              "route add default via " + panel + "\n",
          otherNetwork.Get());
    RunIp("link set lo up\naddr add " + panel + "/24 brd + dev eth0\nlink set eth0 up\n" +
          "route add default via " + other + "\n");
    AwaitCarrier();
    Check(mount(PathOf(otherNetwork).c_str(), secondHost.c_str(), nullptr, MS_BIND, nullptr),
          "second host");
}

void EnterSecondHost(const std::filesystem::path &secondHost)
{
    const Descriptor network = OpenFile(secondHost, O_RDONLY);
    Check(setns(network.Get(), CLONE_NEWNET), "second host");
}

} // namespace nimbra::sandbox
