#pragma once

#include "support/Agent.h"

#include <string>

namespace nimbra::test {

/// Options for an agent that a limit on processes and threads binds, as none binds root: it is run
/// by an ordinary user, whom the sample panel's files are opened to. A caller that is root only in
/// a user namespace is bound as it is.
[[nodiscard]] Agent::Options AsBoundUser();

/// A soft resource limit of the running agent, while the object lives. One thread.
class SoftLimit
{
public:
    /// `resource` is prlimit's word for it: "nofile" or "nproc". Throws std::runtime_error when
    /// the limit cannot be set.
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
