#include "nimbractl/TextWidth.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cwchar>

namespace nimbra::ctl {

namespace {

constexpr char kEllipsis[] = "…";

/// One character of a text.
struct Character
{
    std::size_t Bytes;
    std::size_t Columns;
};

/// Returns the character that begins at `at`.
Character CharacterAt(const std::string &text, std::size_t at)
{
    std::mbstate_t state = {};
    wchar_t wide = 0;
    const std::size_t count = std::mbrtowc(&wide, text.data() + at, text.size() - at, &state);
    if (count == 0 || count > text.size() - at)
        return {1, 1};
    return {count, static_cast<std::size_t>(std::max(wcwidth(wide), 0))};
}

} // namespace

std::string Printable(const std::string &text)
{
    std::string result = text;
    unsigned char before = 0;
    for (char &c : result) {
        const auto byte = static_cast<unsigned char>(c);
        // C2 begins the control characters beyond ASCII, 80 to 9F.
        if (byte < 0x20 || byte == 0x7F || (before == 0xC2 && byte >= 0x80 && byte < 0xA0))
            c = '?';
        before = byte;
    }
    return result;
}

bool IsUtf8(const std::string &text)
{
    try {
        static_cast<void>(nlohmann::json(text).dump());
        return true;
    } catch (const nlohmann::json::type_error &) {
        return false;
    }
}

std::size_t DisplayWidth(const std::string &text)
{
    std::size_t width = 0;
    for (std::size_t at = 0; at < text.size();) {
        const Character character = CharacterAt(text, at);
        width += character.Columns;
        at += character.Bytes;
    }
    return width;
}

std::string Padded(const std::string &text, std::size_t width)
{
    const std::size_t own = DisplayWidth(text);
    return text + std::string(width > own ? width - own : 0, ' ');
}

std::string Shortened(const std::string &text, std::size_t width)
{
    if (DisplayWidth(text) <= width)
        return text;
    std::size_t end = 0;
    for (std::size_t used = 1; end < text.size();) { // the ellipsis takes one column
        const Character character = CharacterAt(text, end);
        used += character.Columns;
        if (used > width)
            break;
        end += character.Bytes;
    }
    return text.substr(0, end) + kEllipsis;
}

} // namespace nimbra::ctl
