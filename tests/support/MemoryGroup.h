#pragma once

#include "support/Agent.h"

#include <cstddef>
#include <filesystem>

namespace nimbra::test {

/// A memory control group of the machine, of version 1 or 2. An agent can run in it. One thread.
class MemoryGroup
{
public:
    /// Throws std::filesystem::filesystem_error or std::runtime_error if the machine allows no such
    /// group.
    explicit MemoryGroup(std::size_t limit);
    /// Removes the group, whose processes must have ended.
    ~MemoryGroup();
    MemoryGroup(const MemoryGroup &) = delete;
    MemoryGroup &operator=(const MemoryGroup &) = delete;

    /// The options of an agent that joins the group before it starts.
    [[nodiscard]] Agent::Options Joined() const;
    /// How many processes of the group the kernel has ended because of its limit.
    [[nodiscard]] std::size_t Kills() const;

private:
    bool isVersion2_;
    std::filesystem::path directory_;
};

} // namespace nimbra::test
