#pragma once

#include "data/Authority.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
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

/// The value of a key: a number or a text, which is not copied.
class Value
{
public:
    Value() = default;
    explicit Value(std::int32_t number) : number_(number) {}
    explicit Value(std::string_view text) : text_(text), isText_(true) {}
    /// A number that the model cannot predict.
    [[nodiscard]] static Value Anything()
    {
        Value anything;
        anything.isCertain_ = false;
        return anything;
    }

    [[nodiscard]] std::int32_t Number() const { return number_; }
    [[nodiscard]] std::string_view Text() const { return text_; }
    /// Whether it is the value of a key that is missing.
    [[nodiscard]] bool IsEmpty() const { return isCertain_ && number_ == 0 && text_.empty(); }
    /// Whether the other value is what this one predicts.
    [[nodiscard]] bool Predicts(const Value &other) const;
    /// For messages.
    [[nodiscard]] std::string Shown() const;

private:
    std::string_view text_;
    std::int32_t number_ = 0;
    bool isText_ = false;
    bool isCertain_ = true;
};

/// Each key of a command with its value; the names are literals. Allocates nothing.
class Fields
{
public:
    struct Field
    {
        std::string_view Name;
        fuzz::Value Value;
    };

    Fields() = default;
    Fields(std::initializer_list<Field> fields);

    void Clear() { count_ = 0; }
    /// Adds a field that does not exist yet.
    void Add(std::string_view name, const Value &value);
    /// The value of a field; one that does not exist is a finding.
    [[nodiscard]] const Value &operator[](std::string_view name) const;
    [[nodiscard]] Value &operator[](std::string_view name);
    [[nodiscard]] bool Has(std::string_view name) const { return Find(name) < count_; }
    [[nodiscard]] std::size_t Count() const { return count_; }
    // NOLINTBEGIN(readability-identifier-naming): the names that a range-based for looks for
    [[nodiscard]] const Field *begin() const { return fields_.data(); }
    [[nodiscard]] const Field *end() const { return fields_.data() + count_; }
    // NOLINTEND(readability-identifier-naming)

private:
    static constexpr std::size_t kMost = 16;

    [[nodiscard]] std::size_t Find(std::string_view name) const;

    std::array<Field, kMost> fields_;
    std::size_t count_ = 0;
};

/// Reads the values that a line, which must outlive them, gives to the keys of its command: a text
/// is cut to its maximum, a date is in seconds of UTC.
void ReadFields(const Command &command, std::string_view line, Fields *fields);
/// Whether a required key is missing.
[[nodiscard]] bool IsIncomplete(const Command &command, const Fields &fields);

/// Whether a text has the form, in which %d is a number and %s any text.
[[nodiscard]] bool HasForm(std::string_view text, std::string_view form);

} // namespace nimbra::fuzz
