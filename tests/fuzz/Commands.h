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

/// A key of a request, and the kind of its value.
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
    std::size_t Size = 0;    ///< maximum of a text, in bytes
    bool IsRequired = false; ///< 0 and an empty text are refused
};

/// A command as clients see it, with its keys and answers. Independent of the agent's table.
struct Command
{
    const char *Name;
    std::optional<AuthorityArea> Area; ///< of the right that it needs; none: no right
    std::uint32_t Right = 0;
    std::vector<Key> Keys;
    /// What follows "Result=0" in the answer on success; %d is a number, %s any text.
    const char *Answer = "";
    /// The form of a list's rows; null when the answer is no list.
    const char *Row = nullptr;
    /// The event that is reported to the panel on success; 0: none.
    int Event = 0;
};

/// All commands, in the agent's order of matching; only the first two are found before login.
[[nodiscard]] std::span<const Command> Commands();

/// The command in a line without its line feed; null: none.
[[nodiscard]] const Command *FindCommand(std::string_view line, bool isLoggedIn);

/// Each key of a command with its value as text: a number, a text cut to its maximum, the seconds
/// of a date in UTC, or kAnything for a date that the model cannot predict.
using Fields = std::map<std::string, std::string>;
inline constexpr char kAnything[] = "?";

/// The values that a line gives to the keys of its command.
[[nodiscard]] Fields FieldsOf(const Command &command, std::string_view line);
/// Whether a required key is missing.
[[nodiscard]] bool IsIncomplete(const Command &command, const Fields &fields);

/// Whether a text has the form, in which %d is a number and %s any text.
[[nodiscard]] bool HasForm(std::string_view text, std::string_view form);

} // namespace nimbra::fuzz
