#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace nimbra::fuzz {

/// A line of the protocol, parsed pair by pair by a second implementation that uses none of the
/// library calls of the agent.
class Message
{
public:
    struct Pair
    {
        std::string_view Key;
        std::string_view Value;
    };

    /// Reads a line without its line feed, which must outlive the message; it ends at its first
    /// zero byte.
    explicit Message(std::string_view line);

    /// The text before the first "?"; may be empty.
    [[nodiscard]] std::string_view Command() const { return command_; }
    /// Reads the next pair; false if there is none.
    [[nodiscard]] bool Next(Pair *pair);

private:
    std::string_view command_;
    std::string_view rest_;
};

/// An ASCII letter in lower case; other characters as they are.
[[nodiscard]] char Lower(char c);

/// The pieces of a text, which must outlive them, between the separators; at least one piece.
[[nodiscard]] std::vector<std::string_view> Split(std::string_view text,
                                                  std::string_view separator);

/// Comparison of bytes. Unlike operator== it reports nothing to the fuzzer's table of comparisons,
/// which takes longer than to compare.
[[nodiscard]] inline bool IsEqual(std::string_view a, std::string_view b)
{
    if (a.size() != b.size())
        return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (a[i] != b[i])
            return false;
    return true;
}
[[nodiscard]] inline bool StartsWith(std::string_view text, std::string_view start)
{
    return text.size() >= start.size() && IsEqual(text.substr(0, start.size()), start);
}

/// Comparison and search that ignore the case of ASCII letters.
[[nodiscard]] bool IsSame(std::string_view a, std::string_view b);
[[nodiscard]] bool Contains(std::string_view text, std::string_view word);
/// Whether a file name is that of an unfinished upload, which no image may have.
[[nodiscard]] bool IsUploadName(std::string_view name);

} // namespace nimbra::fuzz
