#include "protocol/Line.h"

#include <charconv>

namespace nimbra {

Line Line::Request(std::string_view command)
{
    Line line;
    line.Put(command);
    line.Put("?");
    return line;
}

Line Line::Response(std::string_view command, int result)
{
    Line line;
    line.Put(command);
    line.Put("Response?");
    line.Pair("Result", result);
    return line;
}

Line &Line::Pair(std::string_view key, std::int32_t number)
{
    char digits[sizeof "-2147483648"];
    const std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, number);
    return Pair(key, std::string_view(digits, static_cast<std::size_t>(end.ptr - digits)));
}

Line &Line::Pair(std::string_view key, std::string_view text)
{
    BeginPair(key);
    Put(text);
    return *this;
}

Line &Line::QuotedPair(std::string_view key, std::string_view text)
{
    BeginPair(key);
    Put("\"");
    Put(text);
    Put("\"");
    return *this;
}

Line &Line::WordsPair(std::string_view key, std::string_view words)
{
    BeginPair(key);
    const std::size_t capacity = kCapacity - length_;
    Put(words.size() > capacity ? words.substr(0, words.rfind(' ', capacity)) : words);
    return *this;
}

void Line::BeginPair(std::string_view key)
{
    if (hasPairs_)
        Put("&");
    hasPairs_ = true;
    Put(key);
    Put("=");
}

void Line::Put(std::string_view text)
{
    length_ += text.copy(bytes_ + length_, kCapacity - length_);
    End();
}

void Line::End()
{
    bytes_[length_] = '\n';
    bytes_[length_ + 1] = '\0';
}

} // namespace nimbra
