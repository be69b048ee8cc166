#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace nimbra::client {

/// What the panel keeps of texts, in bytes. A doubled quote takes two of them.
inline constexpr std::size_t kNameBytes = 32;
inline constexpr std::size_t kDescriptionBytes = 64;
inline constexpr std::size_t kPasswordBytes = 68;
inline constexpr std::size_t kFileNameBytes = 255;
/// The longest request line, without its line feed.
inline constexpr std::size_t kRequestBytes = 1023;

/// A request line, put together key by key: Request("GetUserInfo").Number("UserNo", 7). A plain
/// value.
class Request
{
public:
    explicit Request(std::string_view word) : word_(word), line_(word_ + "?") {}

    Request &Number(std::string_view key, std::int32_t value);

    /// Adds a text. Its single quotes are doubled, as the panel wants them. An empty one is left
    /// out: in the protocol it would swallow the pair behind it, and a key that is left out means
    /// the empty text anyway. Throws BadRequest for a text that holds "&", a line feed or a zero
    /// byte, that holds a command word with its "?" (the panel would take it for that command), or
    /// that has more than `limit` bytes (the panel would cut it).
    Request &Text(std::string_view key, std::string_view value, std::size_t limit = kNameBytes);

    /// As Text, but the quotes stay as they are: for passwords, file names, dates, and lists.
    Request &Plain(std::string_view key, std::string_view value, std::size_t limit);

    [[nodiscard]] const std::string &Word() const { return word_; }
    /// The whole line, without a line feed. Throws BadRequest when it is too long to be read.
    [[nodiscard]] const std::string &Line() const;

private:
    void Add(std::string_view key, std::string_view value);

    std::string word_;
    std::string line_;
};

/// The text with its single quotes doubled.
[[nodiscard]] std::string WithDoubledQuotes(std::string_view text);

} // namespace nimbra::client
