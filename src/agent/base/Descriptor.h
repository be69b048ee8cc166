#pragma once

#include <utility>

#include <unistd.h>

namespace nimbra {

/// Owns a file or socket descriptor and closes it when it goes. The standard descriptors are held
/// from the start, so every one that is owned is above 0; 0 and below stand for none. One thread
/// at a time.
class Descriptor
{
public:
    explicit Descriptor(int descriptor = 0) : descriptor_(descriptor) {}
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
