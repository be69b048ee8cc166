#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace nimbra::fuzz {

/// Opens a descriptor that exists only for the wrapped calls. The numbers are used again after
/// RequireDescriptorsClosed only, so that whatever the agent does to a descriptor that it has
/// closed is a finding.
[[nodiscard]] int OpenDescriptor();
/// A descriptor that the agent has left open is a finding.
void RequireDescriptorsClosed();

/// A connection of the agent to the fuzzer whose bytes stay in memory, which is much faster than a
/// pair of sockets. The wrapped calls of the C library use the newest connection for its descriptor
/// and the system for the system's descriptors.
class MemoryConnection
{
public:
    /// Takes over `descriptor`, which OpenDescriptor has returned.
    explicit MemoryConnection(int descriptor);
    ~MemoryConnection();
    MemoryConnection(const MemoryConnection &) = delete;
    MemoryConnection &operator=(const MemoryConnection &) = delete;

    /// Sends bytes to the agent.
    void Send(std::string_view bytes) { toAgent_.append(bytes); }
    /// Whether the agent has sent anything since the last call of Receive.
    [[nodiscard]] bool HasReceived() const { return count_ > 0; }
    /// Returns what the agent has sent since the last call. Valid until the agent sends again.
    [[nodiscard]] std::string_view Receive();
    /// Whether the agent has closed its descriptor.
    [[nodiscard]] bool IsClosed() const;

private:
    friend struct WrappedCalls;

    /// What the connection holds for the fuzzer. Small, so that the agent also meets a full socket.
    static constexpr std::size_t kCapacity = 4096;

    int descriptor_;
    std::string toAgent_;
    std::size_t read_ = 0; ///< bytes of toAgent_ that the agent has received
    std::array<char, kCapacity> fromAgent_;
    std::size_t count_ = 0; ///< of the bytes in fromAgent_
};

} // namespace nimbra::fuzz
