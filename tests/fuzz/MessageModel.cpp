#include "fuzz/MessageModel.h"

#include <algorithm>
#include <optional>

namespace nimbra::fuzz {

char Lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

namespace {

bool IsSameLetter(char a, char b)
{
    return Lower(a) == Lower(b);
}

/// Removes the next piece from the text, with the separators before it and the one after it.
std::optional<std::string_view> Take(std::string_view &text, char separator)
{
    const std::size_t start = text.find_first_not_of(separator);
    if (start == std::string_view::npos) {
        text = {};
        return std::nullopt;
    }
    text.remove_prefix(start);
    const std::size_t end = std::min(text.find(separator), text.size());
    const std::string_view piece = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return piece;
}

} // namespace

Message::Message(std::string_view line) : rest_(line.substr(0, line.find('\0')))
{
    command_ = Take(rest_, '?').value_or("");
}

bool Message::Next(Pair *pair)
{
    const std::optional<std::string_view> key = Take(rest_, '=');
    const std::optional<std::string_view> value = Take(rest_, '&');
    if (!key || !value)
        return false;
    *pair = {*key, *value};
    return true;
}

std::vector<std::string_view> Split(std::string_view text, std::string_view separator)
{
    std::vector<std::string_view> pieces;
    for (;;) {
        const std::size_t end = text.find(separator);
        pieces.emplace_back(text.substr(0, end));
        if (end == std::string_view::npos)
            return pieces;
        text.remove_prefix(end + separator.size());
    }
}

bool IsSame(std::string_view a, std::string_view b)
{
    if (a.size() != b.size())
        return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (!IsSameLetter(a[i], b[i]))
            return false;
    return true;
}

bool IsUploadName(std::string_view name)
{
    constexpr std::string_view kLetters =
        "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    constexpr std::string_view kPrefix = ".upload-";
    constexpr std::size_t kSize = 14;
    return name.size() == kSize && name.starts_with(kPrefix) &&
           name.find_first_not_of(kLetters, kPrefix.size()) == std::string_view::npos;
}

bool Contains(std::string_view text, std::string_view word)
{
    return std::search(text.begin(), text.end(), word.begin(), word.end(), IsSameLetter) !=
           text.end();
}

} // namespace nimbra::fuzz
