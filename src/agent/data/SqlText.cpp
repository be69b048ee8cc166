#include "data/SqlText.h"

#include <cstdio>
#include <cstring>

namespace nimbra {

SqlText::SqlText(const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    AppendFormatted(format, arguments);
    va_end(arguments);
}

void SqlText::Append(const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    AppendFormatted(format, arguments);
    va_end(arguments);
}

SqlText &SqlText::Append(const SqlText &other)
{
    isRefused_ = isRefused_ || other.isRefused_;
    Put(other.text_, other.length_);
    return *this;
}

void SqlText::AppendFilter(const char *comparison, std::int32_t value)
{
    if (value != 0)
        Append(" %s %s%d", Link(), comparison, value);
}

void SqlText::AppendLike(const char *column, const char *value)
{
    if (value[0] != '\0')
        Append(" %s %s LIKE '%%%s%%'", Link(), column, value);
}

void SqlText::AppendFormatted(const char *format, std::va_list arguments)
{
    bool isInLiteral = false;
    for (const char *f = format; *f != '\0'; ++f) {
        if (*f == '\'')
            isInLiteral = !isInLiteral;
        if (*f != '%') {
            Put(f, 1);
            continue;
        }
        ++f;
        if (*f == 'd') {
            char digits[12];
            const int count = std::snprintf(digits, sizeof digits, "%d", va_arg(arguments, int));
            Put(digits, static_cast<std::size_t>(count));
        } else if (*f == 's') {
            const char *text = va_arg(arguments, const char *);
            isRefused_ = isRefused_ || (isInLiteral && !StaysInLiteral(text));
            Put(text, std::strlen(text));
        } else {
            Put("%", 1);
        }
    }
}

void SqlText::Put(const char *bytes, std::size_t count)
{
    if (count >= kSize - length_) {
        isRefused_ = true;
        return;
    }
    std::memcpy(text_ + length_, bytes, count);
    length_ += count;
    text_[length_] = '\0';
}

bool StaysInLiteral(const char *text)
{
    while ((text = std::strchr(text, '\'')) != nullptr) {
        if (text[1] != '\'')
            return false;
        text += 2;
    }
    return true;
}

} // namespace nimbra
