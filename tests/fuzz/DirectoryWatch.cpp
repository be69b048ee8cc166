#include "fuzz/DirectoryWatch.h"

#include "fuzz/Finding.h"

#include <sys/inotify.h>
#include <unistd.h>

namespace nimbra::fuzz {

DirectoryWatch::DirectoryWatch(const std::vector<std::filesystem::path> &directories)
    : events_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
{
    constexpr std::uint32_t kChanges =
        IN_ATTRIB | IN_CREATE | IN_DELETE | IN_MODIFY | IN_MOVE | IN_DELETE_SELF | IN_MOVE_SELF;
    for (const std::filesystem::path &directory : directories)
        Require(inotify_add_watch(events_.Get(), directory.c_str(), kChanges | IN_ONLYDIR) > 0,
                directory.string() + ": cannot be watched");
}

bool DirectoryWatch::HasChanged() const
{
    char events[4096];
    bool hasChanged = false;
    while (read(events_.Get(), events, sizeof events) > 0)
        hasChanged = true;
    return hasChanged;
}

} // namespace nimbra::fuzz
