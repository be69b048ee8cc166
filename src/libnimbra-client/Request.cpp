#include <algorithm>
#include <cctype>

#include <nimbra-client/CommandSchema.h>
#include <nimbra-client/Error.h>
#include <nimbra-client/Request.h>

namespace nimbra::client {

namespace {

bool IsSameLetter(char a, char b)
{
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
}

/// Whether the panel, which finds command words anywhere in a line, would find one in `text`.
bool HoldsCommandWord(std::string_view text)
{
    if (text.find('?') == std::string_view::npos)
        return false;
    for (const CommandSchema &schema : CommandSchemas()) {
        const std::string word = std::string(schema.Word) + "?";
        if (std::search(text.begin(), text.end(), word.begin(), word.end(), IsSameLetter) !=
            text.end())
            return true;
    }
    return false;
}

[[noreturn]] void Refuse(std::string_view key, const std::string &why)
{
    throw RequestError("The value of " + std::string(key) + " " + why + ".");
}

void Check(std::string_view key, std::string_view value, std::size_t limit)
{
    if (value.find('&') != std::string_view::npos)
        Refuse(key, "holds \"&\", which the protocol cannot carry");
    if (value.find('\n') != std::string_view::npos)
        Refuse(key, "holds a line feed, which the protocol cannot carry");
    if (value.find('\0') != std::string_view::npos)
        Refuse(key, "holds a zero byte, which the protocol cannot carry");
    if (HoldsCommandWord(value))
        Refuse(key, "holds a command word followed by \"?\", and the panel would take it for that "
                    "command");
    if (value.size() > limit)
        Refuse(key, "has " + std::to_string(value.size()) +
                        " bytes (a single quote counts twice); the panel keeps " +
                        std::to_string(limit));
}

} // namespace

Request &Request::Number(std::string_view key, std::int32_t value)
{
    Add(key, std::to_string(value));
    return *this;
}

Request &Request::Text(std::string_view key, std::string_view value, std::size_t limit)
{
    return RawText(key, EscapeQuotes(value), limit);
}

Request &Request::RawText(std::string_view key, std::string_view value, std::size_t limit)
{
    Check(key, value, limit);
    if (!value.empty())
        Add(key, value);
    return *this;
}

const std::string &Request::Line() const
{
    if (line_.size() > kRequestBytes)
        throw RequestError("The request has " + std::to_string(line_.size()) +
                           " bytes; the panel reads lines of " + std::to_string(kRequestBytes) +
                           ".");
    return line_;
}

void Request::Add(std::string_view key, std::string_view value)
{
    if (line_.size() > word_.size() + 1)
        line_ += '&';
    line_.append(key).append("=").append(value);
}

std::string EscapeQuotes(std::string_view text)
{
    std::string doubled;
    for (const char c : text)
        doubled.append(c == '\'' ? 2 : 1, c);
    return doubled;
}

} // namespace nimbra::client
