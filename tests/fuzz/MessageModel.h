#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace nimbra::fuzz {

/// What a line of the protocol says, worked out a second time: with none of the library calls that
/// the agent uses.
struct Message
{
    struct Pair
    {
        std::string Key;
        std::string Value;
    };
    std::string Command; ///< what stands before the first "?"; empty when nothing does
    std::vector<Pair> Pairs;
};

/// Reads a line without its line feed; it ends at its first zero byte.
[[nodiscard]] Message ReadMessage(std::string_view line);

/// The pieces of a text between the separators, which are not part of them; one piece at least.
[[nodiscard]] std::vector<std::string> Split(std::string_view text, std::string_view separator);

/// Comparison and search that take ASCII letters of either case for the same.
[[nodiscard]] bool IsSame(std::string_view a, std::string_view b);
[[nodiscard]] bool Contains(std::string_view text, std::string_view word);

} // namespace nimbra::fuzz
