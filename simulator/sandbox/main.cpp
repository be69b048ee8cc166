#include "simulator/sandbox/Child.h"
#include "simulator/sandbox/Environment.h"
#include "simulator/sandbox/Network.h"
#include "simulator/sandbox/RealPaths.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <sstream>

namespace nimbra::sandbox {

namespace fs = std::filesystem;

/// Shows the command where it runs: "namespaces" in a private environment, "real" on the real
/// paths.
constexpr char kKindVariable[] = "NIMBRA_SANDBOX";

/// The file of a command, found as a shell finds it.
static fs::path FindProgram(const std::string &name)
{
    if (name.find('/') != std::string::npos)
        return fs::absolute(name).lexically_normal();
    const char *path = std::getenv("PATH");
    std::istringstream directories(path == nullptr ? "/usr/bin:/bin" : path);
    for (std::string directory; std::getline(directories, directory, ':');) {
        fs::path candidate = fs::absolute(directory) / name;
        if (access(candidate.c_str(), X_OK) == 0 && !fs::is_directory(candidate))
            return candidate;
    }
    return {};
}

/// What the command needs from below /tmp: its directory and the working directory, by the names
/// used for them and by their true ones.
static std::vector<fs::path> Needed(const fs::path &program)
{
    std::vector<fs::path> needed{fs::current_path()};
    for (const fs::path &file : {program, fs::weakly_canonical(program)}) {
        const fs::path directory = file.parent_path();
        // All of /tmp cannot be kept; of a program right in it, only its file is.
        needed.push_back(directory == "/tmp" ? file : directory);
    }
    return needed;
}

static int Complain(const std::string &what)
{
    std::fprintf(stderr, "nimbra-sandbox: %s\n", what.c_str());
    return kSandboxFailed;
}

/// Prints the notice, if there is one, when the paths are free.
static int RunOnRealPaths(const fs::path &program, const std::vector<std::string> &command,
                          const std::string &reason, const std::string &notice)
{
    const char *kind = std::getenv(kKindVariable);
    if (kind != nullptr && std::string(kind) == "real")
        return Complain("no private environment (" + reason +
                        "), and the real paths are in use already");
    try {
        const RealPaths paths;
        std::fputs(notice.c_str(), stderr);
        // Nothing may work on the paths any more when they are given back.
        const Outcome outcome = RunChild(program, command, Leftovers::End, [] {
            unsetenv(kSecondHostVariable);
            setenv(kKindVariable, "real", 1);
        });
        return outcome.Status ? *outcome.Status : Complain(outcome.Failure);
    } catch (const std::exception &error) {
        return Complain("no private environment (" + reason + "), and " + error.what());
    }
}

/// Reports what commands will run in. The status is 0 for a private environment, 1 for the real
/// paths and kSandboxFailed for none of both.
static int CheckMachine(const EnvironmentOptions &options)
{
    const Outcome outcome = RunChild(FindProgram("true"), {"true"}, Leftovers::RunOn,
                                     [&options] { EnterEnvironment(options); });
    if (outcome.Status) {
        std::puts("Commands run in a private environment.");
        return 0;
    }
    try {
        const RealPaths paths;
    } catch (const std::exception &error) {
        return Complain("no private environment (" + outcome.Failure + "), and " + error.what());
    }
    std::printf(
        "This machine refuses a private environment (%s): commands run on its real paths and "
        "network, one at a time.\n",
        outcome.Failure.c_str());
    return 1;
}

static int RunOnSecondHost(const fs::path &program, const std::vector<std::string> &command)
{
    const char *secondHost = std::getenv(kSecondHostVariable);
    if (secondHost == nullptr)
        return Complain("--peer works only inside a sandbox that has a network of its own");
    const Outcome outcome =
        RunChild(program, command, Leftovers::RunOn, [secondHost] { EnterSecondHost(secondHost); });
    return outcome.Status ? *outcome.Status : Complain(outcome.Failure);
}

static int RunInEnvironment(const fs::path &program, const std::vector<std::string> &command,
                            const EnvironmentOptions &options)
{
    const Outcome outcome = RunChild(program, command, Leftovers::RunOn, [&options] {
        EnterEnvironment(options);
        setenv(kKindVariable, "namespaces", 1);
    });
    if (outcome.Status)
        return *outcome.Status;
    return RunOnRealPaths(program, command, outcome.Failure,
                          "nimbra-sandbox: no private environment (" + outcome.Failure +
                              "): the command uses the real paths and network of this machine\n");
}

static int Main(int argc, char **argv)
{
    CLI::App app(
        "nimbra-sandbox [OPTIONS] [--] COMMAND [ARGUMENTS...]\n\n"
        "Runs a command in a private environment: it sees the files of the machine, but has its "
        "own\n"
        "empty /tmp and /nimbra, its own /etc/hosts, and its own network, in which eth0 has the\n"
        "address 192.168.77.10 and a second host has 192.168.77.20. The environment is removed "
        "with\n"
        "its last process. The exit status is that of the command; 125 means that the environment\n"
        "could not be made.\n\n"
        "Where namespaces are refused, the command of root runs on the real paths and network of "
        "the\n"
        "machine, one command at a time, if neither /nimbra nor /tmp/NimbraDB exists. Both are\n"
        "removed afterwards, and /etc/hosts is restored.");
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.prefix_command();
    EnvironmentOptions options;
    bool peer = false;
    bool noNamespaces = false;
    bool check = false;
    std::vector<std::string> keep;
    app.add_flag("--host-network", options.HostNetwork, "Use the network of the machine");
    app.add_flag("--peer", peer, "Inside a sandbox: run the command on the second host");
    app.add_option("--keep", keep, "Keep this directory below /tmp visible; may be repeated")
        ->allow_extra_args(false);
    app.add_flag("--no-namespaces", noNamespaces,
                 "Use the real paths, as where namespaces are refused");
    app.add_flag("--check", check,
                 "Only report what commands run in: status 0 for a private environment, 1 for the "
                 "real paths");
    CLI11_PARSE(app, argc, argv);
    if (check)
        return CheckMachine(options);

    std::vector<std::string> command = app.remaining();
    if (!command.empty() && command.front() == "--")
        command.erase(command.begin());
    if (command.empty())
        return Complain("no command given; see --help");
    const fs::path program = FindProgram(command.front());
    if (program.empty()) {
        Complain(command.front() + ": command not found");
        return kNotFound;
    }
    if (peer)
        return RunOnSecondHost(program, command);
    if (noNamespaces)
        return RunOnRealPaths(program, command, "not wanted", "");
    options.Keep = Needed(program);
    for (const std::string &directory : keep)
        options.Keep.push_back(fs::absolute(directory));
    return RunInEnvironment(program, command, options);
}

} // namespace nimbra::sandbox

int main(int argc, char *argv[])
{
    try {
        return nimbra::sandbox::Main(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "nimbra-sandbox: %s\n", error.what());
        return nimbra::sandbox::kSandboxFailed;
    }
}
