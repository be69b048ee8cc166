#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <system_error>

#include <nimbra-client/Record.h>

namespace nimbra::client {

namespace {

/// Removes the double quotes around a value; only an URL has them.
std::string_view WithoutQuotes(std::string_view value)
{
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
        return value.substr(1, value.size() - 2);
    return value;
}

} // namespace

std::optional<std::int32_t> ParseNumber(std::string_view text)
{
    std::int32_t number = 0;
    const char *end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || at != end)
        return std::nullopt;
    return number;
}

Record::Record(std::span<const Field> fields, std::string_view line)
    : fields_(fields), values_(fields.size())
{
    for (std::size_t i = fields.size(); i-- > 0;) {
        const std::string key = std::string(i == 0 ? "" : "&") + fields[i].Name + "=";
        // The first field is only at the start of the line.
        const std::size_t position = i == 0 ? line.rfind(key, 0) : line.rfind(key);
        if (position == std::string_view::npos)
            continue;
        const std::string_view value = line.substr(position + key.size());
        values_[i] = std::string_view(fields[i].Name) == "Url" ? WithoutQuotes(value) : value;
        line = line.substr(0, position);
    }
}

const std::string &Record::Text(std::string_view name) const
{
    static const std::string kNone;
    const auto found = std::find_if(fields_.begin(), fields_.end(),
                                    [name](const Field &field) { return field.Name == name; });
    return found == fields_.end() ? kNone
                                  : values_[static_cast<std::size_t>(found - fields_.begin())];
}

std::int32_t Record::Number(std::string_view name) const
{
    return static_cast<std::int32_t>(std::strtoll(Text(name).c_str(), nullptr, 10));
}

void Record::Set(std::string_view name, std::string_view value)
{
    for (std::size_t i = 0; i < fields_.size(); ++i)
        if (fields_[i].Name == name)
            values_[i] = value;
}

} // namespace nimbra::client
