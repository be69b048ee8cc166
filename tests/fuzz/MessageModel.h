#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace nimbra::fuzz {

/// A line of the protocol, parsed by a second implementation that uses none of the library calls of
/// the agent.
struct Message
{
    struct Pair
    {
        std::string Key;
        std::string Value;
    };
    std::string Command; ///< the text before the first "?"; may be empty
    std::vector<Pair> Pairs;
};

/// Reads a line without its line feed; it ends at its first zero byte.
[[nodiscard]] Message ReadMessage(std::string_view line);

/// The pieces of a text between the separators; at least one piece.
[[nodiscard]] std::vector<std::string> Split(std::string_view text, std::string_view separator);

/// Comparison and search that ignore the case of ASCII letters.
[[nodiscard]] bool IsSame(std::string_view a, std::string_view b);
[[nodiscard]] bool Contains(std::string_view text, std::string_view word);
/// Whether a file name is that of an unfinished upload, which no image may have.
[[nodiscard]] bool IsUploadName(std::string_view name);

} // namespace nimbra::fuzz
