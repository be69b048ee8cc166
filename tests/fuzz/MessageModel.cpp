#include "fuzz/MessageModel.h"

#include <algorithm>
#include <optional>

namespace nimbra::fuzz {

namespace {

char Lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool IsSameLetter(char a, char b)
{
    return Lower(a) == Lower(b);
}

/// Removes the next piece from the text, with the separators before it and the one after it.
std::optional<std::string> Take(std::string_view &text, char separator)
{
    const std::size_t start = text.find_first_not_of(separator);
    if (start == std::string_view::npos) {
        text = {};
        return std::nullopt;
    }
    text.remove_prefix(start);
    const std::size_t end = std::min(text.find(separator), text.size());
    const std::string piece(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    return piece;
}

} // namespace

Message ReadMessage(std::string_view line)
{
    std::string_view rest = line.substr(0, line.find('\0'));
    Message message;
    message.Command = Take(rest, '?').value_or("");
    for (;;) {
        const std::optional<std::string> key = Take(rest, '=');
        const std::optional<std::string> value = Take(rest, '&');
        if (!key || !value)
            return message;
        message.Pairs.push_back({*key, *value});
    }
}

std::vector<std::string> Split(std::string_view text, std::string_view separator)
{
    std::vector<std::string> pieces;
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
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), IsSameLetter);
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
