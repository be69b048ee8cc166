#include "support/MemoryGroup.h"

#include "support/Files.h"
#include "support/Waiting.h"

#include <sstream>
#include <stdexcept>
#include <string>

#include <unistd.h>

namespace nimbra::test {

namespace fs = std::filesystem;

namespace {

constexpr char kVersion1[] = "/sys/fs/cgroup/memory";
constexpr char kVersion2[] = "/sys/fs/cgroup";

} // namespace

MemoryGroup::MemoryGroup(std::size_t limit)
    : isVersion2_(fs::exists(fs::path(kVersion2) / "cgroup.controllers")),
      directory_(fs::path(isVersion2_ ? kVersion2 : kVersion1) /
                 ("nimbra-test-" + std::to_string(getpid())))
{
    fs::create_directory(directory_);
    const fs::path file = directory_ / (isVersion2_ ? "memory.max" : "memory.limit_in_bytes");
    if (!fs::exists(file)) {
        fs::remove(directory_);
        throw std::runtime_error("no memory control group on this machine");
    }
    WriteFile(file, std::to_string(limit));
}

MemoryGroup::~MemoryGroup()
{
    // The kernel takes a moment to let a process that has ended leave its group.
    static_cast<void>(WaitUntil([this] {
        std::error_code error;
        return fs::remove(directory_, error);
    }));
}

Agent::Options MemoryGroup::Joined() const
{
    Agent::Options options;
    options.Wrapper = {"sh", "-c", R"(echo $$ >"$0" && exec "$@")", directory_ / "cgroup.procs"};
    return options;
}

std::size_t MemoryGroup::Kills() const
{
    std::istringstream counts(
        ReadFile(directory_ / (isVersion2_ ? "memory.events" : "memory.oom_control")));
    std::string name;
    for (std::size_t count = 0; counts >> name >> count;)
        if (name == "oom_kill")
            return count;
    throw std::runtime_error("the control group counts no kills");
}

} // namespace nimbra::test
