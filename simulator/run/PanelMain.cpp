// One simulated panel: the sample panel at its real paths, the agent on it, a cloud server, and
// people who come and go. nimbra-simulator runs it in a sandbox.

#include "libnimbra-client/Socket.h"
#include "simulator/cloud/CloudServer.h"
#include "simulator/cloud/Relay.h"
#include "simulator/panel/Activity.h"
#include "simulator/panel/CommandLine.h"
#include "simulator/panel/SamplePanel.h"
#include "simulator/run/Forwarder.h"
#include "simulator/run/Process.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <nimbra-client/Error.h>
#include <unistd.h>

namespace {

using nimbra::Descriptor;
using nimbra::SocketClock;
using nimbra::panel::Activity;
using nimbra::panel::PanelOptions;
using nimbra::panel::PanelPaths;
using nimbra::simulator::CloudServer;
using nimbra::simulator::ForwardConnections;
using nimbra::simulator::ListenOn;
using nimbra::simulator::OpenListener;
using nimbra::simulator::Process;

constexpr int kAgentPort = 9000;

/// Descriptors are 0 if there is none.
struct Options
{
    PanelOptions Panel;
    int EventsPerMinute = 0;
    int Listener = 0;
    int CloudListener = 0;
    int Ready = 0;
};

/// Takes over an inherited descriptor, which no program that is started here shall have.
Descriptor Inherited(int descriptor)
{
    if (descriptor != 0 && fcntl(descriptor, F_SETFD, FD_CLOEXEC) == -1)
        throw std::system_error(errno, std::generic_category(), std::to_string(descriptor));
    return Descriptor(descriptor);
}

/// The panel's name for the cloud server: here it means this machine.
void NameCloudServer()
{
    std::ofstream hosts("/etc/hosts", std::ios::app);
    hosts << "127.0.0.1 cloud.nimbra.example\n" << std::flush;
    if (!hosts)
        throw std::runtime_error("/etc/hosts: cannot be written");
}

/// Throws std::runtime_error when the agent ends, or does not listen in time.
void AwaitListener(Process &agent)
{
    constexpr std::chrono::seconds kLimit(30);
    constexpr std::chrono::milliseconds kPause(50);
    const auto end = SocketClock::now() + kLimit;
    while (SocketClock::now() < end) {
        if (agent.Poll())
            throw std::runtime_error("the agent has ended");
        try {
            const Descriptor probe = nimbra::client::ConnectTo("127.0.0.1", kAgentPort, end);
            return;
        } catch (const nimbra::client::ConnectionError &) {
            std::this_thread::sleep_for(kPause);
        }
    }
    throw std::runtime_error("the agent does not listen");
}

/// Appends events until a signal asks for the end; false when the agent has ended by itself.
bool LivePanel(Process &agent, const Options &options, const sigset_t &awaited)
{
    Activity activity(PanelPaths("/"), std::random_device()());
    constexpr std::chrono::nanoseconds kMinute = std::chrono::minutes(1);
    const bool isLively = options.EventsPerMinute > 0;
    const std::chrono::nanoseconds interval =
        isLively ? kMinute / options.EventsPerMinute : kMinute;
    auto next = SocketClock::now() + interval;
    for (;;) {
        const auto left = std::max(std::chrono::nanoseconds(next - SocketClock::now()),
                                   std::chrono::nanoseconds(0));
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
        const timespec limit{seconds.count(), static_cast<long>((left - seconds).count())};
        const int signal = sigtimedwait(&awaited, nullptr, &limit);
        if (signal == SIGCHLD && agent.Poll())
            return false;
        if (signal > 0 && signal != SIGCHLD)
            return true;
        if (SocketClock::now() < next)
            continue;
        next += interval;
        try {
            if (isLively)
                activity.AppendNext();
        } catch (const std::exception &error) {
            // A management tool may hold the databases, or replace them.
            std::printf("no event: %s\n", error.what());
        }
    }
}

int Run(Options &options)
{
    sigset_t awaited;
    sigemptyset(&awaited);
    for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP})
        sigaddset(&awaited, signal);
    pthread_sigmask(SIG_BLOCK, &awaited, nullptr);

    Descriptor listener = Inherited(options.Listener);
    Descriptor cloudListener = Inherited(options.CloudListener);
    const Descriptor ready = Inherited(options.Ready);
    const std::filesystem::path directory =
        std::filesystem::read_symlink("/proc/self/exe").parent_path();
    options.Panel.CommandTool = directory / "nimbra-cgi";
    options.Panel.CloudEnabled = true;
    // Another program with the agent's port would be taken for the agent.
    OpenListener(kAgentPort, ListenOn::AllAddresses).Close();
    NameCloudServer();
    CreatePanel("/", options.Panel);
    const CloudServer cloud;
    Process agent({directory / "nimbra-agent"});
    AwaitListener(agent);
    if (listener.IsOpen())
        ForwardConnections(std::move(listener), kAgentPort);
    if (cloudListener.IsOpen())
        ForwardConnections(std::move(cloudListener), CloudServer::Ports().Client);
    if (ready.IsOpen() && write(ready.Get(), "\n", 1) != 1)
        throw std::system_error(errno, std::generic_category(), "--ready");

    const bool isAsked = LivePanel(agent, options, awaited);
    agent.Terminate();
    const int status = agent.Wait();
    if (!isAsked)
        std::fprintf(stderr, "nimbra-simulated-panel: the agent has ended with status %d\n",
                     status);
    return isAsked ? status : 1;
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app(
        "Creates a sample panel at the paths of a real one, and runs the agent and a cloud "
        "server for it. nimbra-simulator starts it in a sandbox.");
    app.set_help_flag("-h,--help", "Print this help and exit");
    Options options;
    nimbra::panel::AddSizeOptions(app, options.Panel.Size);
    nimbra::panel::AddActivityOption(app, options.EventsPerMinute);
    app.add_option("--listener", options.Listener,
                   "Descriptor of a listening socket whose clients are led to the agent");
    app.add_option("--cloud-listener", options.CloudListener,
                   "The same, for clients of the cloud server");
    app.add_option("--ready", options.Ready,
                   "Descriptor that gets a line feed when the agent serves");
    CLI11_PARSE(app, argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    try {
        return Run(options);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "nimbra-simulated-panel: %s\n", error.what());
        return 1;
    }
}
