#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace nimbra::client {

enum class Kind
{
    Number,
    Text,
    Time, ///< "2026-01-31 17:05:00", UTC
    Date, ///< "2026-01-31", of the UTC calendar
    List  ///< numbers, separated by blanks
};

/// One pair of an answer.
struct Field
{
    const char *Name;
    client::Kind Kind;
};

/// A whole decimal number of 32 bits with nothing behind it; none for any other text.
[[nodiscard]] std::optional<std::int32_t> ParseNumber(std::string_view text);

/// The pairs of one line of an answer. A plain value.
class Record
{
public:
    Record() = default;
    /// Takes the line apart at the known keys, in their order and from its end: values are not
    /// quoted, and a name may well hold "&" or "=". A field that the line lacks is empty. `fields`
    /// must outlive the record.
    Record(std::span<const Field> fields, std::string_view line);

    [[nodiscard]] std::span<const Field> Fields() const { return fields_; }
    /// A value by its place, and by its name; empty when there is no such field.
    [[nodiscard]] const std::string &At(std::size_t place) const { return values_.at(place); }
    [[nodiscard]] const std::string &Text(std::string_view name) const;
    /// The number that the value begins with, 0 if none.
    [[nodiscard]] std::int32_t Number(std::string_view name) const;
    /// Replaces the value of a field; nothing happens when there is no such field.
    void Set(std::string_view name, std::string_view value);

private:
    std::span<const Field> fields_;
    std::vector<std::string> values_;
};

} // namespace nimbra::client
