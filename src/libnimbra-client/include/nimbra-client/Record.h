#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace nimbra::client {

/// What the value of a field is.
enum class FieldKind
{
    Number, ///< a decimal number of 32 bits
    Text,
    Time, ///< "2026-01-31 17:05:00", UTC
    Date, ///< "2026-01-31", of the UTC calendar
    List  ///< numbers, separated by blanks
};

/// The name and the kind of one pair of a response.
struct Field
{
    const char *Name;
    FieldKind Kind;
};

/// Reads a whole decimal number of 32 bits. Returns nothing for any other text. Any thread.
[[nodiscard]] std::optional<std::int32_t> ParseNumber(std::string_view text);

/// The pairs of one line of a response. A plain value, used by one thread at a time.
class Record
{
public:
    /// A record without fields.
    Record() = default;
    /// Splits the line at the known keys, in their order and from its end: values are not quoted,
    /// so a name may hold "&" or "=". A field that the line lacks is empty. `fields` must outlive
    /// the record.
    Record(std::span<const Field> fields, std::string_view line);

    [[nodiscard]] std::span<const Field> Fields() const { return fields_; }
    /// Returns the value at this index of Fields(). Throws std::out_of_range.
    [[nodiscard]] const std::string &At(std::size_t index) const { return values_.at(index); }
    /// Returns the value of the field with this name; empty when there is no such field.
    [[nodiscard]] const std::string &Text(std::string_view name) const;
    /// Returns the number at the beginning of that value; 0 when there is none.
    [[nodiscard]] std::int32_t Number(std::string_view name) const;
    /// Replaces the value of a field; does nothing when there is no such field.
    void Set(std::string_view name, std::string_view value);

private:
    std::span<const Field> fields_;
    std::vector<std::string> values_;
};

} // namespace nimbra::client
