#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace nimbra {

/// A text of at most N bytes that is always terminated: the "text, N bytes" of every record.
/// A longer value is cut to its first N bytes. Plain value; copy and share as any other.
template <std::size_t N>
class FixedText
{
public:
    FixedText() = default;
    explicit FixedText(std::string_view text) noexcept { Assign(text); }

    /// Takes over `text`, cut to N bytes and at its first zero byte.
    void Assign(std::string_view text) noexcept
    {
        const std::size_t length = text.copy(bytes_, std::min(N, text.find('\0')));
        std::memset(bytes_ + length, 0, sizeof bytes_ - length);
    }

    /// Takes over a printf-formatted text, cut to N bytes.
    [[gnu::format(printf, 2, 3)]] void Format(const char *format, ...)
    {
        std::va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(bytes_, sizeof bytes_, format, arguments);
        va_end(arguments);
    }

    /// Puts one character, not a zero byte, at `place`, which is below N; the text before it is
    /// whole.
    void Set(std::size_t place, char character) { bytes_[place] = character; }

    void Clear() noexcept { Assign({}); }
    [[nodiscard]] const char *Get() const { return bytes_; }
    [[nodiscard]] std::string_view View() const noexcept { return bytes_; }
    [[nodiscard]] bool IsEmpty() const { return bytes_[0] == '\0'; }

    bool operator==(const FixedText &other) const { return View() == other.View(); }

private:
    char bytes_[N + 1] = {};
};

} // namespace nimbra
