#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

namespace nimbra {

/// An SQL statement, or the condition part of one, built by a printf-style format that knows %d,
/// %s and %%. It is refused, and then never run, when it does not fit its buffer or when a text
/// put inside quotes holds a quote that is not doubled: such a text would end its literal. One
/// object, one thread.
class SqlText
{
public:
    /// Buffer of every statement, its terminator included.
    static constexpr std::size_t kSize = 1024;

    SqlText() = default;
    [[gnu::format(printf, 2, 3)]] explicit SqlText(const char *format, ...);

    /// Appends a formatted piece whose quotes are balanced.
    [[gnu::format(printf, 2, 3)]] void Append(const char *format, ...);
    /// Appends another text and returns this one; refused if either is.
    SqlText &Append(const SqlText &other);

    /// Appends one more condition to a condition text: the first is led by WHERE, the later ones by
    /// AND. A value of 0, or an empty one, filters nothing. `comparison` reads like "A.Date>=".
    void AppendFilter(const char *comparison, std::int32_t value);
    void AppendLike(const char *column, const char *value);
    /// The word that links the next condition.
    [[nodiscard]] const char *Link() const { return length_ == 0 ? "WHERE" : "AND"; }

    [[nodiscard]] bool IsRefused() const { return isRefused_; }
    /// The text, terminated; of no use when refused.
    [[nodiscard]] const char *Get() const { return text_; }

private:
    void AppendFormatted(const char *format, std::va_list arguments);
    void Put(const char *bytes, std::size_t count);

    std::size_t length_ = 0;
    bool isRefused_ = false;
    char text_[kSize] = {};
};

/// Whether `text` stays inside a literal that it is put into unchanged: each of its single
/// quotes has its double right behind it. Any thread.
[[nodiscard]] bool StaysInLiteral(const char *text);

} // namespace nimbra
