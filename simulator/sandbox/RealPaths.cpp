#include "simulator/sandbox/RealPaths.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include <sys/file.h>
#include <sys/stat.h>

namespace nimbra::sandbox {

namespace fs = std::filesystem;

constexpr char kPanelFiles[] = "/nimbra";
constexpr char kDatabases[] = "/tmp/NimbraDB";
constexpr char kHosts[] = "/etc/hosts";
// Copy of /etc/hosts; while it exists, the panel's paths belong to the sandbox.
constexpr char kHostsCopy[] = "/tmp/.nimbra-sandbox-hosts";

static std::string ReadFile(const fs::path &path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

static bool IsLeftBehind()
{
    struct stat copy
    {};
    return lstat(kHostsCopy, &copy) == 0 && S_ISREG(copy.st_mode) && copy.st_uid == 0;
}

/// Removes the paths and restores /etc/hosts. What cannot be removed is left to the next holder.
static void CleanUp()
{
    std::error_code ignored;
    fs::remove_all(kPanelFiles, ignored);
    fs::remove_all(kDatabases, ignored);
    const std::string hosts = ReadFile(kHostsCopy);
    if (hosts != ReadFile(kHosts))
        std::ofstream(kHosts) << hosts;
    // A small system may have none, which is as good as an empty one.
    if (hosts.empty())
        fs::remove(kHosts, ignored);
    fs::remove(kHostsCopy, ignored);
}

static void TakePaths()
{
    const std::string hosts = ReadFile(kHosts);
    const Descriptor copy = OpenFile(kHostsCopy, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
    const ssize_t written = write(copy.Get(), hosts.data(), hosts.size());
    if (written != static_cast<ssize_t>(hosts.size())) {
        fs::remove(kHostsCopy);
        throw std::runtime_error(std::string(kHostsCopy) + " cannot be written");
    }
    fs::create_directory(kPanelFiles);
}

RealPaths::RealPaths() : lock_(OpenFile("/tmp", O_RDONLY | O_DIRECTORY))
{
    if (geteuid() != 0)
        throw std::runtime_error("only root may use the real paths");
    Check(flock(lock_.Get(), LOCK_EX), "lock of /tmp");
    if (IsLeftBehind())
        CleanUp();
    for (const char *path : {kPanelFiles, kDatabases}) {
        if (fs::exists(fs::symlink_status(path)))
            throw std::runtime_error(std::string("the real ") + path + " is in use");
    }
    TakePaths();
}

RealPaths::~RealPaths()
{
    CleanUp();
}

} // namespace nimbra::sandbox
