#pragma once

#include "data/Authority.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace nimbra::fuzz {

/// A key of a request, and what its value is.
struct Key
{
    enum class Kind
    {
        Number,
        Text,
        Date,
        Time
    };
    const char *Name;
    Kind Is = Kind::Number;
    std::size_t Size = 0;    ///< bound of a text, in bytes
    bool IsRequired = false; ///< neither 0 nor empty may it be
};

/// A command as clients know it: the agent's command table, its keys and its answers, once more.
struct Command
{
    const char *Name;
    std::optional<AuthorityArea> Area; ///< whose right it takes
    std::uint32_t Right = 0;
    std::vector<Key> Keys;
    /// What follows "Result=0" in the answer to a success; %d is a number, %s any text.
    const char *Answer = "";
    /// The form of a list's rows; null when the answer is no list.
    const char *Row = nullptr;
    /// The event that the panel is told of after a success; 0 for none.
    int Event = 0;
};

/// All of them, in the order in which the agent looks for them; the first two before login.
[[nodiscard]] std::span<const Command> Commands();

/// The command that a line without its line feed is taken for; null for none.
[[nodiscard]] const Command *FindCommand(std::string_view line, bool isLoggedIn);

/// Each key of a command with its value, as a text: a number, a text cut to its bound, the seconds
/// of a date in UTC, kAnything for a date that the model is not certain of.
using Fields = std::map<std::string, std::string>;
inline constexpr char kAnything[] = "?";

/// What a line says to a command that it was found to be.
[[nodiscard]] Fields FieldsOf(const Command &command, std::string_view line);
/// Whether a required key is missing.
[[nodiscard]] bool IsIncomplete(const Command &command, const Fields &fields);

/// Whether a text has the form: %d stands for a number, %s for any text.
[[nodiscard]] bool HasForm(std::string_view text, std::string_view form);

} // namespace nimbra::fuzz
