#include "simulator/scenario/Player.h"
#include "simulator/scenario/Scenario.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

/// Where the agent is.
struct Address
{
    std::string Host = "127.0.0.1";
    std::string Port = "9000";
};

/// Connects to `address` once. Returns the socket; -1, with the reason, on failure.
int ConnectOnce(const Address &address, std::string *error)
{
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    const int result = getaddrinfo(address.Host.c_str(), address.Port.c_str(), &hints, &found);
    if (result != 0) {
        *error = gai_strerror(result);
        return -1;
    }
    int connected = -1;
    for (const addrinfo *one = found; one != nullptr && connected < 0; one = one->ai_next) {
        const int descriptor = socket(one->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (descriptor >= 0 && connect(descriptor, one->ai_addr, one->ai_addrlen) == 0) {
            connected = descriptor;
            break;
        }
        *error = std::strerror(errno);
        if (descriptor >= 0)
            close(descriptor);
    }
    freeaddrinfo(found);
    return connected;
}

/// The same, tried again for up to `seconds` while it fails.
int Connect(const Address &address, int seconds, std::string *error)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (;;) {
        const int connected = ConnectOnce(address, error);
        if (connected >= 0)
            return connected;
        if (std::chrono::steady_clock::now() >= deadline) {
            *error = address.Host + ":" + address.Port + ": " + *error;
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

bool WantsColour()
{
    const char *noColour = std::getenv("NO_COLOR");
    return isatty(STDOUT_FILENO) == 1 && (noColour == nullptr || *noColour == '\0');
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app("Plays written conversations against an agent and shows every line of them.");
    Address address;
    int waitSeconds = 0;
    std::vector<std::string> files;
    app.add_option("FILE", files, "scenarios to play one after another, each as a new client")
        ->required();
    app.option_defaults()->always_capture_default();
    app.add_option("--host", address.Host, "where the agent is");
    app.add_option("--port", address.Port, "its TCP port");
    app.add_option("--wait", waitSeconds, "seconds to try while nobody answers there")
        ->check(CLI::Range(0, 3600));
    CLI11_PARSE(app, argc, argv);

    nimbra::PlayerOptions stage;
    stage.Connect = [&](std::string *error) { return Connect(address, waitSeconds, error); };
    stage.Out = &std::cout;
    stage.HasColour = WantsColour();
    for (const std::string &file : files) {
        std::string error;
        const auto scenario = nimbra::ReadScenario(file, &error);
        if (!scenario) {
            std::cerr << "nimbra-scenario: " << error << '\n';
            return 2;
        }
        if (!nimbra::PlayScenario(*scenario, stage))
            return 1;
    }
    return 0;
}
