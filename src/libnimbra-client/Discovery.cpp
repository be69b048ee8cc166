#include "base/PanelConstants.h"
#include "libnimbra-client/Socket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <random>
#include <string_view>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <nimbra-client/Discovery.h>
#include <nimbra-client/Error.h>
#include <nimbra-client/Record.h>

namespace nimbra::client {

namespace {

constexpr std::array<Field, 5> kFields{{
    {"Key", FieldKind::Number},
    {"MacAddr", FieldKind::Text},
    {"ModelName", FieldKind::Text},
    {"PrivateAddr", FieldKind::Text},
    {"PrivatePort", FieldKind::Number},
}};

constexpr std::string_view kResponse = "ScanResponse?Result=0&";

sockaddr_in AddressOf(in_addr_t address, int port)
{
    sockaddr_in result = {};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = address;
    result.sin_port = htons(static_cast<std::uint16_t>(port));
    return result;
}

/// Returns the broadcast addresses of this machine's networks: a datagram to 255.255.255.255
/// leaves by one interface only.
std::vector<in_addr_t> BroadcastAddresses()
{
    std::vector<in_addr_t> addresses = {INADDR_BROADCAST};
    ifaddrs *first = nullptr;
    if (getifaddrs(&first) != 0)
        return addresses;
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> interfaces(first, freeifaddrs);
    for (const ifaddrs *at = first; at != nullptr; at = at->ifa_next) {
        if (at->ifa_addr == nullptr || at->ifa_addr->sa_family != AF_INET ||
            (at->ifa_flags & (IFF_UP | IFF_BROADCAST)) != (IFF_UP | IFF_BROADCAST) ||
            at->ifa_broadaddr == nullptr)
            continue;
        sockaddr_in address = {};
        std::memcpy(&address, at->ifa_broadaddr, sizeof address);
        addresses.push_back(address.sin_addr.s_addr);
    }
    return addresses;
}

in_addr_t Resolve(const std::string &name)
{
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    addrinfo *first = nullptr;
    const int failure = getaddrinfo(name.c_str(), nullptr, &hints, &first);
    if (failure != 0)
        throw ConnectionError("Cannot find the address of " + name + ": " + gai_strerror(failure) +
                              ".");
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(first, freeaddrinfo);
    sockaddr_in address = {};
    std::memcpy(&address, first->ai_addr, sizeof address);
    return address.sin_addr.s_addr;
}

std::vector<in_addr_t> TargetsOf(const DiscoveryOptions &options)
{
    if (options.Targets.empty())
        return BroadcastAddresses();
    std::vector<in_addr_t> addresses;
    for (const std::string &name : options.Targets)
        addresses.push_back(Resolve(name));
    return addresses;
}

Descriptor OpenAnswerSocket()
{
    Descriptor socket = OpenSocket(SOCK_DGRAM);
    const int on = 1;
    const sockaddr_in own = AddressOf(INADDR_ANY, kScanAnswerPort);
    // Several programs of one machine may look for panels at the same time.
    if (!socket.IsOpen() ||
        setsockopt(socket.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0 ||
        setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(socket.Get(), reinterpret_cast<const sockaddr *>(&own), sizeof own) != 0)
        throw ConnectionError("Cannot listen on UDP port " + std::to_string(kScanAnswerPort) +
                              " for the responses: " + std::strerror(errno) + ".");
    return socket;
}

void Probe(int socket, const std::vector<in_addr_t> &targets, std::int32_t key)
{
    const std::string text = "Scan?Key=" + std::to_string(key) + "\n";
    bool isSent = false;
    int error = 0;
    for (const in_addr_t target : targets) {
        const sockaddr_in address = AddressOf(target, kScanRequestPort);
        const bool isGone =
            sendto(socket, text.data(), text.size(), MSG_NOSIGNAL,
                   reinterpret_cast<const sockaddr *>(&address), sizeof address) >= 0;
        error = isGone ? error : errno;
        isSent = isSent || isGone;
    }
    if (!isSent)
        throw ConnectionError(std::string("Cannot send a probe: ") + std::strerror(error) + ".");
}

/// Reads one datagram. Returns false when it is not a response to the probe with this key.
bool Receive(int socket, std::int32_t key, DiscoveredPanel *panel)
{
    std::array<char, 2048> bytes;
    sockaddr_in sender = {};
    socklen_t size = sizeof sender;
    const ssize_t count = recvfrom(socket, bytes.data(), bytes.size(), MSG_DONTWAIT,
                                   reinterpret_cast<sockaddr *>(&sender), &size);
    if (count <= 0)
        return false;
    std::string_view text(bytes.data(), static_cast<std::size_t>(count));
    text = text.substr(0, text.find('\n'));
    if (text.substr(0, kResponse.size()) != kResponse)
        return false;
    const Record record(kFields, text.substr(kResponse.size()));
    std::array<char, INET_ADDRSTRLEN> name{};
    inet_ntop(AF_INET, &sender.sin_addr, name.data(), name.size());
    *panel = {record.Text("ModelName"),
              record.Text("PrivateAddr"),
              record.Number("PrivatePort"),
              record.Text("MacAddr"),
              name.data(),
              record.Number("Key")};
    return panel->Key == key;
}

std::int32_t DrawKey()
{
    std::random_device device;
    return std::uniform_int_distribution<std::int32_t>(1)(device);
}

} // namespace

std::vector<DiscoveredPanel> Discover(const DiscoveryOptions &options)
{
    const std::vector<in_addr_t> targets = TargetsOf(options);
    const Descriptor socket = OpenAnswerSocket();
    const std::int32_t key = DrawKey();
    const Deadline end = Clock::now() + options.Duration;
    Deadline nextProbe = Clock::now();
    std::vector<DiscoveredPanel> panels;
    while (Clock::now() < end) {
        if (Clock::now() >= nextProbe) {
            Probe(socket.Get(), targets, key);
            nextProbe += options.ProbeInterval;
        }
        DiscoveredPanel panel;
        if (!WaitForInput(socket.Get(), std::min(nextProbe, end), options.IsCancelled) ||
            !Receive(socket.Get(), key, &panel))
            continue;
        const bool isKnown =
            std::any_of(panels.begin(), panels.end(), [&panel](const DiscoveredPanel &known) {
                return known.MacAddress == panel.MacAddress && known.Sender == panel.Sender;
            });
        if (isKnown)
            continue;
        panels.push_back(panel);
        if (options.OnFound)
            options.OnFound(panel);
    }
    return panels;
}

} // namespace nimbra::client
