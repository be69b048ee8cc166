#include "simulator/sandbox/Environment.h"

#include "simulator/sandbox/Network.h"
#include "simulator/sandbox/SystemCall.h"

#include <algorithm>
#include <fstream>
#include <string>
#include <utility>

#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>

namespace nimbra::sandbox {

namespace fs = std::filesystem;

// The new root is built here: a directory that every host has and that the environment replaces
// anyway.
constexpr char kBuildPlace[] = "/tmp";
// The environment's own files, seen from inside.
constexpr char kOwnFiles[] = "/.sandbox";

static void WriteFile(const fs::path &path, const std::string &text)
{
    std::ofstream file(path);
    file << text << std::flush;
    if (!file)
        throw std::system_error(errno, std::generic_category(), path.string());
}

static void Bind(const fs::path &from, const fs::path &to)
{
    Check(mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr),
          "bind " + to.string());
}

/// Makes the caller root of a user namespace, so that users without rights can have an environment.
static void BecomeRoot()
{
    const uid_t user = geteuid();
    const gid_t group = getegid();
    Check(unshare(CLONE_NEWUSER), "user namespace");
    WriteFile("/proc/self/setgroups", "deny");
    WriteFile("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
    WriteFile("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
}

/// Shows one entry of the host's root directory in the new root.
static void ShowEntry(const fs::directory_entry &entry, const fs::path &place)
{
    if (entry.is_symlink()) {
        fs::copy_symlink(entry.path(), place);
    } else if (entry.is_directory()) {
        fs::create_directory(place);
        Bind(entry.path(), place);
    } else if (entry.is_regular_file()) {
        WriteFile(place, "");
        Bind(entry.path(), place);
    }
}

/// Whether something that lies below the directory would be hidden by a fresh one.
static bool IsBelow(const fs::path &path, const fs::path &directory)
{
    const auto [stop, rest] =
        std::mismatch(directory.begin(), directory.end(), path.begin(), path.end());
    return stop == directory.end() && rest != path.end();
}

/// A file or directory of the host's /tmp, held open while /tmp is being covered.
struct Kept
{
    fs::path Path;
    Descriptor File;
};

static std::vector<Kept> HoldKept(const std::vector<fs::path> &paths)
{
    std::vector<Kept> kept;
    for (const fs::path &wanted : paths) {
        const fs::path path = wanted.lexically_normal();
        if (!IsBelow(path, "/tmp") || path == "/tmp/NimbraDB" || IsBelow(path, "/tmp/NimbraDB"))
            continue;
        if (fs::exists(path))
            kept.push_back({path, OpenFile(path, O_PATH)});
    }
    // A directory goes before what lies in it, which is then already visible.
    std::sort(kept.begin(), kept.end(),
              [](const Kept &a, const Kept &b) { return a.Path < b.Path; });
    return kept;
}

static void ShowKept(const std::vector<Kept> &kept, const fs::path &newRoot)
{
    for (const Kept &entry : kept) {
        const fs::path place = newRoot / entry.Path.relative_path();
        if (fs::exists(place))
            continue;
        fs::create_directories(place.parent_path());
        if (fs::is_directory(PathOf(entry.File)))
            fs::create_directory(place);
        else
            WriteFile(place, "");
        Bind(PathOf(entry.File), place);
    }
}

static void BuildRoot(const std::vector<fs::path> &keep)
{
    const std::vector<Kept> kept = HoldKept(keep);
    const fs::path newRoot = kBuildPlace;
    Check(mount("nimbra-sandbox", kBuildPlace, "tmpfs", 0, "mode=0755"), "tmpfs");
    for (const fs::directory_entry &entry : fs::directory_iterator("/")) {
        const fs::path name = entry.path().filename();
        if (name != "tmp" && name != "nimbra" && name != kOwnFiles + 1)
            ShowEntry(entry, newRoot / name);
    }
    for (const char *name : {"tmp", "nimbra", kOwnFiles + 1})
        fs::create_directory(newRoot / name);
    fs::permissions(newRoot / "tmp", fs::perms(01777));
    ShowKept(kept, newRoot);
}

static void ChangeRoot()
{
    Check(chdir(kBuildPlace), kBuildPlace);
    // The old root is put on top of the new one and taken away there.
    if (syscall(SYS_pivot_root, ".", ".") == 0) {
        Check(umount2(".", MNT_DETACH), "old root");
    } else {
        // The first root of a machine cannot be pivoted away from.
        Check(mount(".", "/", nullptr, MS_MOVE, nullptr), "new root");
        Check(chroot("."), "chroot");
    }
    Check(chdir("/"), "/");
}

/// Puts a file of the environment's own over one of the host's.
static void Replace(const fs::path &path, const std::string &text)
{
    const fs::path own = fs::path(kOwnFiles) / path.filename();
    WriteFile(own, text);
    if (fs::exists(path))
        Bind(own, path);
}

static std::string ReadFile(const fs::path &path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

void EnterEnvironment(const EnvironmentOptions &options)
{
    const fs::path directory = fs::current_path();
    // Root may lack the right too: a user namespace may then still be allowed.
    if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0) {
        BecomeRoot();
        Check(unshare(CLONE_NEWNS), "mount namespace");
    }
    Check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "private mounts");
    BuildRoot(options.Keep);
    ChangeRoot();
    Replace("/etc/hosts", ReadFile("/etc/hosts"));
    if (!options.HostNetwork) {
        // No name server is in reach: a look-up shall fail at once, not after a long wait.
        Replace("/etc/resolv.conf", "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n");
        const fs::path secondHost = fs::path(kOwnFiles) / "second-host";
        WriteFile(secondHost, "");
        MakeNetwork(secondHost);
        setenv(kSecondHostVariable, secondHost.c_str(), 1);
    }
    std::error_code hidden;
    fs::current_path(directory, hidden);
}

} // namespace nimbra::sandbox
