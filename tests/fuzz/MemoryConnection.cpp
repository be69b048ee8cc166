#include "fuzz/MemoryConnection.h"

#include "fuzz/Finding.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/types.h>

// The linker prescribes the names of wrapped functions.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" int __real_close(int descriptor);
extern "C" int __real_fcntl64(int descriptor, int command, long argument);
extern "C" int __real_getsockopt(int socket, int level, int name, void *value, socklen_t *size);
extern "C" int __real_setsockopt(int socket, int level, int name, const void *value,
                                 socklen_t size);
extern "C" ssize_t __real_recv(int socket, void *bytes, std::size_t count, int flags);
extern "C" ssize_t __real_send(int socket, const void *bytes, std::size_t count, int flags);
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace nimbra::fuzz {

namespace {

/// Above all descriptors that the system gives.
constexpr int kFirstDescriptor = 1'000'000;

MemoryConnection *newest = nullptr;

/// Whether each descriptor since kFirstDescriptor is open. More than an input can make.
constexpr std::size_t kMostDescriptors = 4096;
std::array<bool, kMostDescriptors> areOpen = {};
std::size_t descriptors = 0;

/// Null for a descriptor of the system.
bool *Find(int descriptor)
{
    if (descriptor < kFirstDescriptor)
        return nullptr;
    const auto index = static_cast<std::size_t>(descriptor - kFirstDescriptor);
    if (index >= descriptors || !areOpen[index])
        Report("a descriptor is used that is not open");
    return &areOpen[index];
}

} // namespace

int OpenDescriptor()
{
    areOpen.at(descriptors) = true;
    return kFirstDescriptor + static_cast<int>(descriptors++);
}

void RequireDescriptorsClosed()
{
    for (std::size_t i = 0; i < descriptors; ++i)
        Require(!areOpen[i], "a descriptor is not closed");
    descriptors = 0;
}

MemoryConnection::MemoryConnection(int descriptor) : descriptor_(descriptor)
{
    newest = this;
}

MemoryConnection::~MemoryConnection()
{
    if (newest == this)
        newest = nullptr;
}

std::string_view MemoryConnection::Receive()
{
    return {fromAgent_.data(), std::exchange(count_, 0)};
}

bool MemoryConnection::IsClosed() const
{
    return !areOpen.at(static_cast<std::size_t>(descriptor_ - kFirstDescriptor));
}

/// The agent's calls.
struct WrappedCalls
{
    /// Whether a descriptor is not the system's. If so, it must be open.
    static bool IsInMemory(int descriptor) { return fuzz::Find(descriptor) != nullptr; }

    static void Close(int descriptor) { *fuzz::Find(descriptor) = false; }

    static ssize_t Receive(int descriptor, void *bytes, std::size_t size)
    {
        MemoryConnection *const connection = ConnectionOf(descriptor);
        if (connection == nullptr || connection->read_ == connection->toAgent_.size())
            return Block();
        const std::size_t count = std::min(size, connection->toAgent_.size() - connection->read_);
        // The agent receives lines byte by byte.
        if (count == 1)
            *static_cast<char *>(bytes) = connection->toAgent_[connection->read_];
        else
            std::memcpy(bytes, connection->toAgent_.data() + connection->read_, count);
        connection->read_ += count;
        return static_cast<ssize_t>(count);
    }

    static ssize_t Send(int descriptor, const void *bytes, std::size_t size)
    {
        MemoryConnection *const connection = ConnectionOf(descriptor);
        if (connection == nullptr)
            return Block();
        const std::size_t count = std::min(size, MemoryConnection::kCapacity - connection->count_);
        if (count == 0)
            return Block();
        std::memcpy(connection->fromAgent_.data() + connection->count_, bytes, count);
        connection->count_ += count;
        return static_cast<ssize_t>(count);
    }

private:
    /// The newest connection if it has this descriptor; null: its peer does nothing any more.
    static MemoryConnection *ConnectionOf(int descriptor)
    {
        return newest != nullptr && newest->descriptor_ == descriptor ? newest : nullptr;
    }

    static ssize_t Block()
    {
        errno = EAGAIN;
        return -1;
    }
};

} // namespace nimbra::fuzz

using nimbra::fuzz::WrappedCalls;

// The linker prescribes the names of wrapping functions.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" int __wrap_close(int descriptor)
{
    if (!WrappedCalls::IsInMemory(descriptor))
        return __real_close(descriptor);
    WrappedCalls::Close(descriptor);
    return 0;
}

extern "C" int __wrap_fcntl64(int descriptor, int command, long argument)
{
    return WrappedCalls::IsInMemory(descriptor) ? 0 : __real_fcntl64(descriptor, command, argument);
}

extern "C" int __wrap_getsockopt(int socket, int level, int name, void *value, socklen_t *size)
{
    if (!WrappedCalls::IsInMemory(socket))
        return __real_getsockopt(socket, level, name, value, size);
    // No error, and no option that is set.
    std::memset(value, 0, *size);
    return 0;
}

extern "C" int __wrap_setsockopt(int socket, int level, int name, const void *value, socklen_t size)
{
    return WrappedCalls::IsInMemory(socket) ? 0
                                            : __real_setsockopt(socket, level, name, value, size);
}

extern "C" ssize_t __wrap_recv(int socket, void *bytes, std::size_t count, int flags)
{
    return WrappedCalls::IsInMemory(socket) ? WrappedCalls::Receive(socket, bytes, count)
                                            : __real_recv(socket, bytes, count, flags);
}

extern "C" ssize_t __wrap_send(int socket, const void *bytes, std::size_t count, int flags)
{
    return WrappedCalls::IsInMemory(socket) ? WrappedCalls::Send(socket, bytes, count)
                                            : __real_send(socket, bytes, count, flags);
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
