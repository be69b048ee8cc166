#pragma once

#include <atomic>

namespace nimbra {

/// A one-byte flag that one thread (or a signal handler) sets and others poll. Lock-free.
/// What a thread did before it changed the flag is seen by whoever then reads the change, so that
/// a session whose running flag is clear may be deleted at once.
class Flag
{
public:
    constexpr explicit Flag(bool isSet) noexcept : value_(isSet) {}

    void Set() { value_.store(true, std::memory_order_release); }
    void Clear() { value_.store(false, std::memory_order_release); }
    [[nodiscard]] bool IsSet() const { return value_.load(std::memory_order_acquire); }

private:
    std::atomic<bool> value_;
    static_assert(sizeof(value_) == 1 && std::atomic<bool>::is_always_lock_free);
};

} // namespace nimbra
