// Runs a command in a world of its own, in which the panel's fixed paths and ports are free:
// private /tmp, /nimbra and /etc/hosts, and a network with a loopback, a wired eth0 and a second
// host on the same segment. Nothing of it is left behind.

#include <CLI/CLI.hpp>

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace nimbra {

namespace {

namespace fs = std::filesystem;

constexpr int kCannotRun = 125;

/// The root of the new world while it is built: it hides the old /tmp, which it replaces.
constexpr char kNewRoot[] = "/tmp";

/// Where the network of the second host can be entered, inside the world.
constexpr char kPeerNetwork[] = "/tmp/.peer-network";

struct Options
{
    bool HostNetwork = false;
    bool NoNamespaces = false;
    std::vector<std::string> Keep;
    std::vector<std::string> Command;
};

[[noreturn]] void Fail(const std::string &what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

void Check(int result, const std::string &what)
{
    if (result < 0)
        Fail(what);
}

void WriteFile(const fs::path &path, const std::string &text)
{
    std::ofstream(path) << text;
}

/// A directory below the old /tmp that stays visible at its path, held while /tmp is replaced.
struct KeptDirectory
{
    fs::path Path;
    int Descriptor;
};

bool IsBelowTmp(const fs::path &path)
{
    const auto relative = path.lexically_relative("/tmp");
    return !relative.empty() && *relative.begin() != ".." && relative != ".";
}

std::vector<KeptDirectory> HoldDirectories(const std::vector<std::string> &wanted)
{
    std::vector<KeptDirectory> kept;
    for (const std::string &name : wanted) {
        const fs::path path = fs::weakly_canonical(name);
        if (!IsBelowTmp(path))
            continue;
        const int descriptor = open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        Check(descriptor, path);
        kept.push_back({path, descriptor});
    }
    return kept;
}

void Bind(const fs::path &source, const fs::path &target)
{
    Check(mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr),
          "cannot show " + target.string());
}

/// Shows one entry of the old root in the new one; the panel's own paths start empty.
void ShowEntry(const fs::directory_entry &entry)
{
    const std::string name = entry.path().filename();
    const fs::path target = fs::path(kNewRoot) / name;
    if (name == "tmp" || name == "nimbra")
        return;
    if (entry.is_symlink())
        return fs::copy_symlink(entry.path(), target);
    if (!entry.is_directory())
        return;
    fs::create_directory(target);
    Bind(entry.path(), target);
}

/// Puts a copy over the hosts file that the command may rewrite.
void ReplaceHosts()
{
    const fs::path hosts = fs::path(kNewRoot) / "etc/hosts";
    if (!fs::exists(hosts))
        return;
    const fs::path copy = fs::path(kNewRoot) / ".hosts";
    fs::copy_file(hosts, copy);
    fs::permissions(copy, fs::perms::owner_write, fs::perm_options::add);
    Bind(copy, hosts);
}

void BuildRoot(const std::vector<std::string> &wanted)
{
    Check(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "cannot unshare mounts");
    const std::vector<KeptDirectory> kept = HoldDirectories(wanted);
    Check(mount("tmpfs", kNewRoot, "tmpfs", 0, "mode=755"), "cannot mount a tmpfs");
    for (const fs::directory_entry &entry : fs::directory_iterator("/"))
        ShowEntry(entry);
    const fs::path tmp = fs::path(kNewRoot) / "tmp";
    fs::create_directories(fs::path(kNewRoot) / "nimbra");
    fs::create_directory(tmp);
    fs::permissions(tmp, fs::perms::all | fs::perms::sticky_bit);
    for (const KeptDirectory &directory : kept) {
        const fs::path target = kNewRoot + directory.Path.string();
        fs::create_directories(target);
        Bind("/proc/self/fd/" + std::to_string(directory.Descriptor), target);
        close(directory.Descriptor);
    }
    ReplaceHosts();
}

/// Runs `ip -batch -` with the given lines; throws when it fails.
void Ip(const std::string &lines)
{
    std::FILE *ip = popen("ip -batch -", "w");
    if (ip == nullptr)
        Fail("cannot run ip");
    std::fputs(lines.c_str(), ip);
    if (pclose(ip) != 0)
        throw std::runtime_error("ip cannot set up the network");
}

/// The second host: makes its network, waits until the wire is laid, and configures its end.
[[noreturn]] void BuildPeer(int ready, int go)
{
    try {
        Check(unshare(CLONE_NEWNET), "cannot make a second network");
        const std::string handle = kNewRoot + std::string(kPeerNetwork);
        WriteFile(handle, "");
        Bind("/proc/self/ns/net", handle);
        char token = 0;
        if (write(ready, "r", 1) != 1 || read(go, &token, 1) != 1)
            _exit(kCannotRun);
        Ip("link set lo up\n"
           "link set peer0 name eth0\n"
           "address add 192.168.77.20/24 broadcast + dev eth0\n"
           "link set eth0 up\n");
        _exit(EXIT_SUCCESS);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "nimbra-sandbox: %s\n", error.what());
        _exit(kCannotRun);
    }
}

void BuildNetwork()
{
    int ready[2];
    int go[2];
    Check(pipe2(ready, O_CLOEXEC), "pipe");
    Check(pipe2(go, O_CLOEXEC), "pipe");
    const pid_t peer = fork();
    Check(peer, "fork");
    if (peer == 0)
        BuildPeer(ready[1], go[0]);
    close(ready[1]);
    char token = 0;
    if (read(ready[0], &token, 1) == 1) {
        Ip("link set lo up\n"
           "link add eth0 address 00:1a:2b:3c:4d:5e type veth peer name peer0 netns " +
           std::to_string(peer) +
           "\n"
           "address add 192.168.77.10/24 broadcast + dev eth0\n"
           "link set eth0 up\n"
           "route add default via 192.168.77.20\n");
        if (write(go[1], "g", 1) != 1)
            Fail("pipe");
    }
    int status = 0;
    Check(waitpid(peer, &status, 0), "waitpid");
    for (const int descriptor : {ready[0], go[0], go[1]})
        close(descriptor);
    if (status != 0)
        throw std::runtime_error("the second host cannot be set up");
}

[[noreturn]] void Execute(const std::vector<std::string> &command)
{
    std::vector<char *> arguments;
    for (const std::string &argument : command)
        arguments.push_back(const_cast<char *>(argument.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    Fail(command[0]);
}

/// Unshares what the world needs of its own; false when the machine refuses it.
bool EnterNamespaces(const Options &options)
{
    const uid_t user = geteuid();
    const gid_t group = getegid();
    const int flags =
        CLONE_NEWNS | (options.HostNetwork ? 0 : CLONE_NEWNET) | (user == 0 ? 0 : CLONE_NEWUSER);
    if (unshare(flags) != 0)
        return false;
    if (user != 0) {
        WriteFile("/proc/self/setgroups", "deny");
        WriteFile("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
        WriteFile("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
    }
    return true;
}

[[noreturn]] void RunInWorld(const Options &options)
{
    const std::string directory = fs::current_path();
    std::vector<std::string> keep = options.Keep;
    keep.push_back(directory);
    if (options.Command[0].find('/') != std::string::npos)
        keep.push_back(fs::absolute(options.Command[0]).parent_path());
    keep.push_back(fs::canonical("/proc/self/exe").parent_path());
    BuildRoot(keep);
    if (!options.HostNetwork)
        BuildNetwork();
    Check(chroot(kNewRoot), "cannot enter the new root");
    Check(chdir(directory.c_str()), directory);
    setenv("NIMBRA_SANDBOX", "namespaces", 1);
    Execute(options.Command);
}

volatile std::sig_atomic_t runningChild = 0;

/// Runs the command on the machine's real paths, one at a time, and clears them afterwards.
int RunOnRealPaths(const Options &options)
{
    const std::vector<fs::path> paths = {"/nimbra", "/tmp/NimbraDB"};
    const int root = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    Check(root, "/");
    Check(flock(root, LOCK_EX), "cannot wait for the turn");
    for (const fs::path &path : paths)
        if (fs::exists(path))
            throw std::runtime_error("no namespaces here, and " + path.string() + " is in use");
    std::ifstream hosts("/etc/hosts");
    const std::string savedHosts{std::istreambuf_iterator<char>(hosts), {}};
    const pid_t child = fork();
    Check(child, "fork");
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        setenv("NIMBRA_SANDBOX", "real", 1);
        try {
            Execute(options.Command);
        } catch (const std::exception &error) {
            std::fprintf(stderr, "nimbra-sandbox: %s\n", error.what());
            _exit(kCannotRun);
        }
    }
    runningChild = child;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        std::signal(signal, [](int number) { kill(runningChild, number); });
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR)
        continue;
    for (const fs::path &path : paths)
        fs::remove_all(path);
    if (!savedHosts.empty())
        WriteFile("/etc/hosts", savedHosts);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int Run(const Options &options)
{
    if (!options.NoNamespaces && EnterNamespaces(options))
        RunInWorld(options);
    if (geteuid() == 0)
        return RunOnRealPaths(options);
    throw std::runtime_error("this machine refuses namespaces, and the real paths need root");
}

} // namespace

} // namespace nimbra

int main(int argc, char **argv)
{
    CLI::App app("Runs a command in a world of its own, with private /tmp, /nimbra, /etc/hosts and "
                 "network: nimbra-sandbox [OPTIONS] [--] COMMAND [ARGUMENTS...]. Needs root, or a "
                 "kernel that "
                 "lets users make namespaces.");
    nimbra::Options options;
    app.add_flag("--host-network", options.HostNetwork, "Use the machine's own network");
    app.add_flag("--no-namespaces", options.NoNamespaces,
                 "Use the machine's real paths, one command at a time, and clear them afterwards");
    app.add_option("--keep", options.Keep, "A directory below /tmp that stays visible")
        ->type_name("DIR")
        ->expected(1)
        ->allow_extra_args(false);
    app.prefix_command();
    CLI11_PARSE(app, argc, argv);
    options.Command = app.remaining();
    if (!options.Command.empty() && options.Command[0] == "--")
        options.Command.erase(options.Command.begin());
    if (options.Command.empty()) {
        std::fprintf(stderr, "nimbra-sandbox: no command to run; see --help\n");
        return nimbra::kCannotRun;
    }
    try {
        return nimbra::Run(options);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "nimbra-sandbox: %s\n", error.what());
        return nimbra::kCannotRun;
    }
}
