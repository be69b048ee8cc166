#pragma once

#include "support/Agent.h"

#include <string>

namespace nimbra::test {

/// Options for an agent to which limits on processes and threads apply. They do not apply to root,
/// so an ordinary user runs the agent and gets access to the files of the sample panel. They do
/// apply to a caller that is root only in a user namespace, who runs the agent itself.
[[nodiscard]] Agent::Options AsBoundUser();

/// Sets a soft resource limit of the running agent during its lifetime. One thread.
class SoftLimit
{
public:
    /// `resource` is the limit's name for prlimit: "nofile" or "nproc". Throws std::runtime_error
    /// if the limit cannot be set.
    SoftLimit(const Agent &agent, std::string resource, std::size_t value);
    ~SoftLimit();
    SoftLimit(const SoftLimit &) = delete;
    SoftLimit &operator=(const SoftLimit &) = delete;

private:
    void Set(const std::string &value) const;

    pid_t agent_;
    std::string resource_;
    std::string before_;
};

} // namespace nimbra::test
