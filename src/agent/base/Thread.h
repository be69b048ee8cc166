#pragma once

#include <cstddef>

namespace nimbra {

/// Stack of every thread that the agent starts: small, so that many sessions fit a 32-bit panel.
inline constexpr std::size_t kThreadStack = std::size_t{256} * 1024;

/// Starts a detached thread that runs `body(argument)`. Returns false, having started nothing,
/// when the thread cannot be created. Any thread.
[[nodiscard]] bool StartDetached(void *(*body)(void *), void *argument);

/// The same for a member function without arguments: `StartThread<&Service::Process>(this)`.
/// `object` must outlive the thread's use of it.
template <auto Method, class Object>
[[nodiscard]] bool StartThread(Object *object)
{
    return StartDetached(
        [](void *argument) -> void * {
            (static_cast<Object *>(argument)->*Method)();
            return nullptr;
        },
        object);
}

} // namespace nimbra
