#include "support/Limits.h"

#include "support/Files.h"
#include "support/Program.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nimbra::test {

namespace fs = std::filesystem;

namespace {

constexpr char kOwnAgent[] = "/nimbra/sbin/nimbra-agent"; ///< copy that the user can run

/// An ordinary user for this test alone: a limit counts all that its user runs, so the agents of
/// tests that run beside this one must have other users.
uid_t OwnUser()
{
    constexpr uid_t kFirst = 100000; // not in use by others
    return kFirst + static_cast<uid_t>(getpid());
}

/// Whether the caller can become the ordinary user. Root of a user namespace often cannot.
bool HasUser()
{
    std::istringstream map(ReadFile("/proc/self/uid_map"));
    unsigned first = 0;
    unsigned outside = 0;
    unsigned count = 0;
    while (map >> first >> outside >> count)
        if (OwnUser() >= first && OwnUser() - first < count)
            return true;
    return false;
}

std::vector<std::string> RunByUser(uid_t user)
{
    const std::string id = std::to_string(user);
    return {"setpriv", "--reuid=" + id, "--regid=" + id, "--clear-groups", "--pdeathsig=KILL"};
}

void OpenToEveryone(const fs::path &directory)
{
    fs::permissions(directory, fs::perms(0777));
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(directory))
        fs::permissions(entry.path(), fs::perms::all);
}

} // namespace

Agent::Options AsBoundUser()
{
    Agent::Options options;
    if (!HasUser())
        return options;
    for (const char *directory : {"/tmp/NimbraDB", "/nimbra"})
        OpenToEveryone(directory);
    // The build directory may be accessible only to its owner.
    std::string script = std::string("cp \"$0\" ") + kOwnAgent + " && exec";
    for (const std::string &word : RunByUser(OwnUser()))
        script += " " + word;
    options.Wrapper = {"sh", "-c", script + " " + kOwnAgent};
    return options;
}

SoftLimit::SoftLimit(const Agent &agent, std::string resource, std::size_t value)
    : agent_(agent.Pid()), resource_(std::move(resource))
{
    // The agent has inherited the test's own limits.
    rlimit limit = {};
    getrlimit(resource_ == "nproc" ? RLIMIT_NPROC : RLIMIT_NOFILE, &limit);
    before_ = limit.rlim_cur == RLIM_INFINITY ? "unlimited" : std::to_string(limit.rlim_cur);
    Set(std::to_string(value));
}

SoftLimit::~SoftLimit()
{
    try {
        Set(before_);
    } catch (const std::exception &error) {
        ADD_FAILURE() << error.what();
    }
}

void SoftLimit::Set(const std::string &value) const
{
    const std::string process = std::to_string(agent_);
    struct stat owner
    {};
    stat(("/proc/" + process).c_str(), &owner);
    // Runs as the agent's user: root may not be allowed to limit a process of another user.
    std::vector<std::string> command;
    if (owner.st_uid != 0)
        command = RunByUser(owner.st_uid);
    for (const std::string &word :
         {std::string("prlimit"), "--pid=" + process, "--" + resource_ + "=" + value + ":"})
        command.push_back(word);
    const ProgramResult result = RunProgram(command);
    if (result.Status != 0)
        throw std::runtime_error("the agent's " + resource_ +
                                 " cannot be limited: " + result.Output);
}

} // namespace nimbra::test
