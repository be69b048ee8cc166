#include "support/Waiting.h"

#include <thread>

namespace nimbra::test {

bool WaitUntil(const std::function<bool()> &condition, milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(milliseconds(5));
    }
    return true;
}

} // namespace nimbra::test
