#include "simulator/sandbox/RealPaths.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>

#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace nimbra::sandbox {

namespace fs = std::filesystem;

constexpr char kPanelFiles[] = "/nimbra";
constexpr char kDatabases[] = "/tmp/NimbraDB";
constexpr char kHosts[] = "/etc/hosts";
// The record of the holder. It and /nimbra are made under other names and then renamed: a holder
// that is killed leaves a whole record, or none and no /nimbra.
constexpr char kRecord[] = "/tmp/.nimbra-sandbox";
constexpr char kNewRecord[] = "/tmp/.nimbra-sandbox-new";
constexpr char kNewPanelFiles[] = "/.nimbra-sandbox-new";

/// Holds HolderRecord::Holder.
constexpr char kHolderVariable[] = "NIMBRA_SANDBOX_HOLDER";

static std::string ReadFile(const fs::path &path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Tells a directory from all others that had or will have its path; empty when there is none. The
/// inode number is not enough: a new directory may get that of one that was removed.
static std::string IdentityOf(const char *path)
{
    struct statx status
    {};
    const int result = statx(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_BTIME, &status);
    if (result == -1 && errno == ENOENT)
        return {};
    Check(result, path);
    return std::to_string(status.stx_ino) + ' ' + std::to_string(status.stx_btime.tv_sec) + ' ' +
           std::to_string(status.stx_btime.tv_nsec);
}

static std::optional<HolderRecord> ReadRecord()
{
    struct stat status
    {};
    // Other users may write to /tmp.
    if (lstat(kRecord, &status) != 0 || !S_ISREG(status.st_mode) || status.st_uid != 0)
        return std::nullopt;
    std::ifstream file(kRecord);
    HolderRecord record;
    std::getline(file, record.Holder);
    std::getline(file, record.PanelFiles);
    record.Hosts.assign(std::istreambuf_iterator<char>(file), {});
    return record;
}

static void WriteRecord(const HolderRecord &record)
{
    const std::string text = record.Holder + '\n' + record.PanelFiles + '\n' + record.Hosts;
    fs::remove(kNewRecord);
    const Descriptor file = OpenFile(kNewRecord, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
    if (write(file.Get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw std::runtime_error(std::string(kNewRecord) + " cannot be written");
    fs::rename(kNewRecord, kRecord);
}

/// Ends the processes of a holder's command; true when there were any. Throws when one lives on.
static bool EndProcesses(const std::string &holder)
{
    constexpr int kPatience = 5000;
    const std::string entry = std::string(kHolderVariable) + '=' + holder;
    bool found = false;
    for (const fs::directory_entry &directory : fs::directory_iterator("/proc")) {
        const std::string name = directory.path().filename();
        const int number = std::atoi(name.c_str());
        if (number == 0)
            continue;
        // Opened first: when another process gets the number meanwhile, this stays the old one.
        const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, number, 0)));
        if (ReadFile(directory.path() / "environ").find(entry) == std::string::npos)
            continue;
        found = true;
        syscall(SYS_pidfd_send_signal, process.Get(), SIGKILL, nullptr, 0);
        pollfd end{process.Get(), POLLIN, 0};
        if (poll(&end, 1, kPatience) != 1)
            throw std::runtime_error("process " + name +
                                     " of an earlier command on the real paths still runs");
    }
    return found;
}

static void RestoreHosts(const std::string &hosts)
{
    if (ReadFile(kHosts) != hosts)
        std::ofstream(kHosts) << hosts;
    // A small system may have none, which is as good as an empty one.
    std::error_code ignored;
    if (hosts.empty())
        fs::remove(kHosts, ignored);
    if (ReadFile(kHosts) != hosts)
        throw std::runtime_error(std::string(kHosts) + " cannot be restored; " + kRecord +
                                 " holds it from the third line on");
}

/// Removes the paths if they are the holder's, and restores /etc/hosts. Throws when that fails: the
/// record then stays for the next holder.
static void CleanUp(const HolderRecord &record)
{
    std::error_code error;
    // Made first and removed last: while it is there, /tmp/NimbraDB is the holder's too.
    if (IdentityOf(kPanelFiles) == record.PanelFiles) {
        fs::remove_all(kDatabases, error);
        if (!error)
            fs::remove_all(kPanelFiles, error);
    }
    RestoreHosts(record.Hosts);
    if (error)
        throw std::system_error(error, "the real paths cannot be removed");
    fs::remove(kRecord);
}

static HolderRecord TakePaths()
{
    std::random_device random;
    HolderRecord record;
    record.Holder = std::to_string(random()) + '-' + std::to_string(random());
    record.Hosts = ReadFile(kHosts);
    try {
        fs::remove(kNewPanelFiles);
        fs::create_directory(kNewPanelFiles);
        record.PanelFiles = IdentityOf(kNewPanelFiles);
        WriteRecord(record);
        fs::rename(kNewPanelFiles, kPanelFiles);
    } catch (...) {
        std::error_code ignored;
        for (const char *path : {kNewRecord, kRecord, kNewPanelFiles})
            fs::remove(path, ignored);
        throw;
    }
    return record;
}

RealPaths::RealPaths() : lock_(OpenFile("/tmp", O_RDONLY | O_DIRECTORY))
{
    if (geteuid() != 0)
        throw std::runtime_error("only root may use the real paths");
    Check(flock(lock_.Get(), LOCK_EX), "lock of /tmp");
    if (const std::optional<HolderRecord> left = ReadRecord()) {
        // One that was found may have started another meanwhile.
        while (EndProcesses(left->Holder)) {
        }
        CleanUp(*left);
    }
    for (const char *path : {kPanelFiles, kDatabases}) {
        if (fs::exists(fs::symlink_status(path)))
            throw std::runtime_error(std::string("the real ") + path + " is in use");
    }
    record_ = TakePaths();
    setenv(kHolderVariable, record_.Holder.c_str(), 1);
}

RealPaths::~RealPaths()
{
    try {
        // The command may have made another /nimbra.
        record_.PanelFiles = IdentityOf(kPanelFiles);
        CleanUp(record_);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "nimbra-sandbox: %s\n", error.what());
    }
}

} // namespace nimbra::sandbox
