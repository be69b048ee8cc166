#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace nimbra::client {

// The bytes that the panel stores of a text. A doubled quote takes two of them.
inline constexpr std::size_t kNameBytes = 32;
inline constexpr std::size_t kDescriptionBytes = 64;
inline constexpr std::size_t kPasswordBytes = 68;
inline constexpr std::size_t kFileNameBytes = 255;
/// The longest request line in bytes, without its line feed.
inline constexpr std::size_t kRequestBytes = 1023;

/// A request line, built key by key: Request("GetUserInfo").Number("UserNo", 7). A plain value,
/// used by one thread at a time.
class Request
{
public:
    /// A request for the command `word`, without keys.
    explicit Request(std::string_view word) : word_(word), line_(word_ + "?") {}

    Request &Number(std::string_view key, std::int32_t value);

    /// Adds a text and doubles its single quotes, as the panel requires. An empty text is left out:
    /// in the protocol it would swallow the next pair, and a key that is left out means the empty
    /// text. Throws RequestError for a text that holds "&", a line feed, a zero byte or a command's
    /// word with its "?" (the panel would run that command), or that has more than `limit` bytes
    /// with its quotes doubled (the panel would cut it).
    Request &Text(std::string_view key, std::string_view value, std::size_t limit = kNameBytes);

    /// As Text, but leaves the quotes as they are: for passwords, file names, dates and lists.
    Request &RawText(std::string_view key, std::string_view value, std::size_t limit);

    [[nodiscard]] const std::string &Word() const { return word_; }
    /// Returns the whole line, without a line feed. Throws RequestError when it is longer than
    /// kRequestBytes.
    [[nodiscard]] const std::string &Line() const;

private:
    void Add(std::string_view key, std::string_view value);

    std::string word_;
    std::string line_;
};

/// Returns the text with its single quotes doubled. Any thread.
[[nodiscard]] std::string EscapeQuotes(std::string_view text);

} // namespace nimbra::client
