// Starts simulated panels, each in a sandbox of its own, and leads clients of this machine to them.

#include "simulator/cloud/Relay.h"
#include "simulator/panel/CommandLine.h"
#include "simulator/panel/SamplePanel.h"
#include "simulator/run/Process.h"
#include "simulator/sandbox/SystemCall.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <deque>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace nimbra::simulator {

namespace {

namespace fs = std::filesystem;

constexpr int kFirstPort = 9000;
/// From the port of a panel to that of its cloud server, as from 9000 to 9520.
constexpr int kCloudPortOffset = 520;
constexpr int kMostPanels = 100;

struct Options
{
    panel::PanelSize Size;
    int EventsPerMinute = 0;
    int Panels = 1;
    int Port = kFirstPort;
    bool HostNetwork = false;
    std::string Logs;
};

/// How panels can run on this machine.
enum class Place
{
    Sandbox,     ///< each with a network of its own
    HostNetwork, ///< one, on the network of this machine
    RealPaths    ///< one, without any namespace
};

/// The programs of the simulator are in one directory.
fs::path ProgramPath(const char *name)
{
    return fs::read_symlink("/proc/self/exe").replace_filename(name);
}

Place FindPlace(const Options &options)
{
    const Descriptor nowhere = sandbox::OpenFile("/dev/null", O_WRONLY);
    Process check({ProgramPath("nimbra-sandbox"), "--check"}, {}, nowhere.Get());
    const int status = check.Wait();
    if (status == 0)
        return options.HostNetwork ? Place::HostNetwork : Place::Sandbox;
    if (status != 1)
        throw std::runtime_error("this machine allows no simulated panel");
    std::puts(
        "This machine refuses namespaces: the panel uses /nimbra, /tmp/NimbraDB and the network "
        "of the machine.");
    return Place::RealPaths;
}

/// A panel in its sandbox.
class SimulatedPanel
{
public:
    /// Starts it; ports of this machine lead to it if it has a network of its own. Throws
    /// std::system_error, also when a port is taken.
    SimulatedPanel(const Options &options, Place place, int index)
        : index_(index), port_(options.Port + index), process_(Start(options, place))
    {}

    /// Waits until the agent serves. Throws std::runtime_error when it does not.
    void AwaitService()
    {
        char byte = 0;
        if (read(ready_.Get(), &byte, 1) != 1)
            throw std::runtime_error("panel " + std::to_string(index_ + 1) + " did not start");
    }

    void Print() const
    {
        std::printf("Panel %d: 127.0.0.1 port %d; through its cloud server: port %d\n", index_ + 1,
                    port_, port_ + kCloudPortOffset);
    }

    [[nodiscard]] Process &Running() { return process_; }

private:
    Process Start(const Options &options, Place place)
    {
        std::vector<std::string> command = {ProgramPath("nimbra-sandbox")};
        if (place == Place::HostNetwork)
            command.emplace_back("--host-network");
        else if (place == Place::RealPaths)
            command.emplace_back("--no-namespaces");
        command.insert(command.end(), {"--", ProgramPath("nimbra-simulated-panel"), "--activity",
                                       std::to_string(options.EventsPerMinute)});
        for (std::string &word : panel::SizeWords(options.Size))
            command.push_back(std::move(word));

        std::vector<int> descriptors;
        const auto add = [&command, &descriptors](const char *option,
                                                  const Descriptor &descriptor) {
            command.emplace_back(option);
            command.push_back(std::to_string(descriptor.Get()));
            descriptors.push_back(descriptor.Get());
        };
        sandbox::Pipe ready = sandbox::MakePipe();
        ready_ = std::move(ready.ReadEnd);
        add("--ready", ready.WriteEnd);
        Descriptor listener;
        Descriptor cloudListener;
        if (place == Place::Sandbox) {
            listener = OpenListener(port_, ListenOn::Loopback);
            cloudListener = OpenListener(port_ + kCloudPortOffset, ListenOn::Loopback);
            add("--listener", listener);
            add("--cloud-listener", cloudListener);
        }
        const fs::path log =
            options.Logs.empty()
                ? fs::path("/dev/null")
                : fs::path(options.Logs) / ("panel-" + std::to_string(index_ + 1) + ".log");
        constexpr mode_t kMode = 0644;
        const Descriptor output = sandbox::OpenFile(log, O_WRONLY | O_CREAT | O_TRUNC, kMode);
        return Process(command, descriptors, output.Get());
    }

    int index_;
    int port_;
    Descriptor ready_;
    Process process_;
};

/// Waits for a signal that asks for the end. Throws std::runtime_error when a panel ends by itself.
void AwaitEnd(std::deque<SimulatedPanel> &panels, const sigset_t &awaited)
{
    for (;;) {
        const int signal = sigwaitinfo(&awaited, nullptr);
        if (signal > 0 && signal != SIGCHLD)
            return;
        for (SimulatedPanel &panel : panels) {
            if (panel.Running().Poll())
                throw std::runtime_error("a panel has ended");
        }
    }
}

int Run(const Options &options)
{
    const Place place = FindPlace(options);
    if (place != Place::Sandbox && (options.Panels > 1 || options.Port != kFirstPort))
        throw std::runtime_error("on the network of the machine there is one panel, on port 9000");
    if (!options.Logs.empty())
        fs::create_directories(options.Logs);

    sigset_t awaited;
    sigemptyset(&awaited);
    for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP})
        sigaddset(&awaited, signal);
    sigprocmask(SIG_BLOCK, &awaited, nullptr);

    std::deque<SimulatedPanel> panels;
    for (int index = 0; index < options.Panels; ++index)
        panels.emplace_back(options, place, index);
    for (SimulatedPanel &panel : panels) {
        panel.AwaitService();
        panel.Print();
    }
    panel::PrintAccounts();
    std::printf(
        "Try: NIMBRA_PASSWORD='%s' nimbractl --host 127.0.0.1 --port %d --user %s doors list\n"
        "Ctrl-C ends the simulation; all changes are lost then.\n",
        panel::kOperator.Password, options.Port, panel::kOperator.Id);
    AwaitEnd(panels, awaited);

    int status = 0;
    for (SimulatedPanel &panel : panels)
        panel.Running().Terminate();
    for (SimulatedPanel &panel : panels)
        status = std::max(status, panel.Running().Wait());
    return status;
}

int Main(int argc, char **argv)
{
    CLI::App app("Starts simulated panels: each has sample data, the real agent, a command tool "
                 "and a cloud\n"
                 "server, in a private environment of its own, which is removed at the end. "
                 "Applications of\n"
                 "this machine reach panel N at 127.0.0.1, port 9000 + N - 1, or through its cloud "
                 "server at\n"
                 "port 9520 + N - 1. Needs no root where the machine allows user namespaces.");
    app.set_help_flag("-h,--help", "Print this help and exit");
    Options options;
    app.add_option("--panels", options.Panels, "Number of panels")
        ->check(CLI::Range(1, kMostPanels))
        ->capture_default_str();
    panel::AddActivityOption(app, options.EventsPerMinute);
    panel::AddSizeOptions(app, options.Size);
    app.add_option("--port", options.Port,
                   "Port of the first panel; its cloud server has this + 520")
        ->check(CLI::Range(1, 65535 - kCloudPortOffset - kMostPanels))
        ->capture_default_str();
    app.add_flag(
        "--host-network", options.HostNetwork,
        "Use the network of the machine: other machines reach the panel too, and discovery "
        "finds it");
    app.add_option("--logs", options.Logs,
                   "Write the logs of the agents to panel-1.log and so on, in this directory");
    CLI11_PARSE(app, argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    try {
        return Run(options);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "nimbra-simulator: %s\n", error.what());
        return 1;
    }
}

} // namespace

} // namespace nimbra::simulator

int main(int argc, char *argv[])
{
    return nimbra::simulator::Main(argc, argv);
}
