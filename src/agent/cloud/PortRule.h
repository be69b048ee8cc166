#pragma once

#include <cstdint>

namespace nimbra {

/// Decides which public port the agent reports: one that two replies in a row agree on, and 0 as
/// soon as it changes. One thread.
class PortRule
{
public:
    /// Takes in the port of the latest reply and updates the port to report. Returns whether it
    /// must be reported now.
    [[nodiscard]] bool TakeIn(std::int32_t linkPort, std::int32_t *stunPort)
    {
        if (previousPort_ != 0)
            *stunPort = previousPort_ == linkPort ? linkPort : 0;
        previousPort_ = linkPort;
        const bool isNew = *stunPort != reportedPort_;
        reportedPort_ = *stunPort;
        return isNew;
    }

private:
    std::int32_t previousPort_ = 0;
    std::int32_t reportedPort_ = 0;
};

} // namespace nimbra
