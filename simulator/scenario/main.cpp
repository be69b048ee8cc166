#include "libnimbra-client/Socket.h"
#include "simulator/scenario/Player.h"
#include "simulator/scenario/Scenario.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include <nimbra-client/Error.h>
#include <unistd.h>

namespace {

/// Where the agent is.
struct Address
{
    std::string Host = "127.0.0.1";
    int Port = 9000;
};

/// Connects, and tries again for up to `wait` while that fails. Returns none, with the reason, when
/// it has failed.
nimbra::Descriptor Connect(const Address &address, std::chrono::seconds wait, std::string *error)
{
    constexpr std::chrono::seconds kConnectLimit(10);
    // It is read after an exception, which the analyzer does not follow.
    // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores)
    const auto deadline = nimbra::SocketClock::now() + wait;
    for (;;) {
        try {
            return nimbra::client::ConnectTo(address.Host, address.Port,
                                             nimbra::SocketClock::now() + kConnectLimit);
        } catch (const nimbra::client::ConnectionError &failure) {
            *error = failure.what();
        }
        if (nimbra::SocketClock::now() >= deadline)
            return nimbra::Descriptor();
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
    CLI::App app(
        "Plays scenarios, which are written conversations, with an agent and shows every line.");
    Address address;
    int waitSeconds = 0;
    std::vector<std::string> files;
    app.add_option("FILE", files, "Scenarios to play one after another, each as a new client")
        ->required();
    app.option_defaults()->always_capture_default();
    app.add_option("--host", address.Host, "Host of the agent");
    app.add_option("--port", address.Port, "TCP port of the agent")->check(CLI::Range(1, 65535));
    app.add_option("--wait", waitSeconds, "Seconds to repeat a connection attempt that fails")
        ->check(CLI::Range(0, 3600));
    CLI11_PARSE(app, argc, argv);

    nimbra::simulator::PlayerOptions options;
    options.Connect = [&](std::string *error) {
        return Connect(address, std::chrono::seconds(waitSeconds), error);
    };
    options.Out = &std::cout;
    options.HasColour = WantsColour();
    for (const std::string &file : files) {
        std::string error;
        const auto scenario = nimbra::simulator::ReadScenario(file, &error);
        if (!scenario) {
            std::cerr << "nimbra-scenario: " << error << '\n';
            return 2;
        }
        if (!nimbra::simulator::PlayScenario(*scenario, options))
            return 1;
    }
    return 0;
}
