#pragma once

#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace nimbra {

/// Owns a file or socket descriptor and closes it at the end of its life. 0 and below mean none:
/// standard input is never owned. One thread at a time. Header-only, so that every product, the
/// tests and the benchmark use the same class.
class Descriptor
{
public:
    explicit Descriptor(int descriptor = 0) : descriptor_(descriptor) {}
    /// Takes over a descriptor that was opened in a program whose caller may have closed standard
    /// input: one that got its number is given another.
    [[nodiscard]] static Descriptor AboveStandardInput(int descriptor)
    {
        if (descriptor != STDIN_FILENO)
            return Descriptor(descriptor);
        Descriptor other(fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
        close(descriptor);
        return other;
    }
    ~Descriptor() { Close(); }
    Descriptor(Descriptor &&other) noexcept : descriptor_(other.Release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        Close();
        descriptor_ = other.Release();
        return *this;
    }

    [[nodiscard]] int Get() const { return descriptor_; }
    [[nodiscard]] bool IsOpen() const { return descriptor_ > 0; }
    /// Hands the descriptor on to another owner.
    [[nodiscard]] int Release() { return std::exchange(descriptor_, 0); }
    void Close()
    {
        if (IsOpen())
            close(Release());
    }

private:
    int descriptor_;
};

} // namespace nimbra
