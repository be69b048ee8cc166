#include "nimbractl/Output.h"

#include "nimbractl/Errors.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include <unistd.h>

namespace nimbra::ctl {

namespace {

using client::Field;
using client::FieldKind;
using client::Record;
using Json = nlohmann::ordered_json;

/// A table's columns are as wide as these first rows need.
constexpr std::size_t kRowsForWidths = 200;

/// What a column gets when its rows cannot be seen beforehand.
std::size_t LiveWidth(const Field &field)
{
    const std::size_t name = std::string(field.Name).size();
    switch (field.Kind) {
    case FieldKind::Number:
        return name;
    case FieldKind::Time:
        return 19;
    case FieldKind::Date:
        return 10;
    case FieldKind::Text:
    case FieldKind::List:
        break;
    }
    return std::max<std::size_t>(name, 20);
}

bool IsContinuation(char c)
{
    return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U;
}

/// Characters of a UTF-8 text.
std::size_t Width(const std::string &text)
{
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return !IsContinuation(c); }));
}

std::string Padded(const std::string &text, std::size_t width)
{
    const std::size_t own = Width(text);
    return text + std::string(width > own ? width - own : 0, ' ');
}

bool HasColour()
{
    const char *none = std::getenv("NO_COLOR");
    const char *terminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) != 0 && (none == nullptr || *none == '\0') &&
           terminal != nullptr && std::string(terminal) != "dumb";
}

std::string Heading(const std::string &text)
{
    return HasColour() ? "\033[1m" + text + "\033[0m" : text;
}

void Put(const std::string &text)
{
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size())
        throw LocalFailure(std::string("Cannot write the output: ") + std::strerror(errno) + ".");
}

std::string TableCell(const Record &record, std::size_t place, StatusWords status)
{
    if (std::string(record.Fields()[place].Name) == "Status")
        return record.Number("Status") != 0 ? status.One : status.Zero;
    return Printable(record.At(place));
}

Json ToJson(const std::string &value, FieldKind kind)
{
    if (kind == FieldKind::List) {
        Json numbers = Json::array();
        const char *at = value.c_str();
        for (char *end = nullptr;; at = end) {
            const long long number = std::strtoll(at, &end, 10);
            if (end == at)
                return numbers;
            numbers.push_back(number);
        }
    }
    if (kind == FieldKind::Number)
        return value.empty() ? Json() : Json(std::strtoll(value.c_str(), nullptr, 10));
    return value;
}

/// Bytes that are no UTF-8 (the panel cuts texts anywhere) become replacement characters.
std::string JsonText(const Record &record, int indent)
{
    Json object = Json::object();
    for (std::size_t i = 0; i < record.Fields().size(); ++i)
        object[record.Fields()[i].Name] = ToJson(record.At(i), record.Fields()[i].Kind);
    return object.dump(indent, ' ', false, Json::error_handler_t::replace);
}

std::string CsvCell(const std::string &value)
{
    if (value.find_first_of(",\"\r\n") == std::string::npos)
        return value;
    std::string quoted = "\"";
    for (const char c : value)
        quoted.append(c == '"' ? 2 : 1, c);
    return quoted + "\"";
}

class TableWriter : public ListWriter
{
public:
    explicit TableWriter(const ListStyle &style) : style_(style) {}

    void Row(const Record &record) override
    {
        std::vector<std::string> cells;
        for (std::size_t i = 0; i < record.Fields().size(); ++i)
            cells.push_back(TableCell(record, i, style_.Status));
        if (rows_.empty() && widths_.empty())
            Begin(record);
        if (!style_.IsLive && isMeasuring_) {
            Measure(cells);
            rows_.push_back(std::move(cells));
            if (rows_.size() == kRowsForWidths)
                End();
            return;
        }
        if (isMeasuring_)
            End();
        PutRow(cells, false);
    }

    void End() override
    {
        if (!isMeasuring_ || headings_.empty())
            return;
        isMeasuring_ = false;
        PutRow(headings_, true);
        for (const std::vector<std::string> &row : rows_)
            PutRow(row, false);
        rows_.clear();
    }

private:
    void Begin(const Record &record)
    {
        for (const Field &field : record.Fields()) {
            headings_.emplace_back(field.Name);
            widths_.push_back(style_.IsLive ? LiveWidth(field) : headings_.back().size());
        }
    }

    void Measure(const std::vector<std::string> &cells)
    {
        for (std::size_t i = 0; i < cells.size(); ++i)
            widths_[i] = std::max(widths_[i], Width(cells[i]));
    }

    void PutRow(const std::vector<std::string> &cells, bool isHeading) const
    {
        std::string line;
        for (std::size_t i = 0; i < cells.size(); ++i)
            line += (i == 0 ? "" : "  ") + Padded(cells[i], widths_[i]);
        line.erase(line.find_last_not_of(' ') + 1);
        Put((isHeading ? Heading(line) : line) + "\n");
        if (style_.IsLive)
            std::fflush(stdout);
    }

    const ListStyle style_;
    std::vector<std::string> headings_;
    std::vector<std::size_t> widths_;
    std::vector<std::vector<std::string>> rows_;
    bool isMeasuring_ = true;
};

class JsonWriter : public ListWriter
{
public:
    explicit JsonWriter(bool isLive) : isLive_(isLive) {}

    void Row(const Record &record) override
    {
        const std::string text = JsonText(record, -1);
        if (isLive_)
            Put(text + "\n");
        else
            Put((hasRows_ ? ",\n  " : "[\n  ") + text);
        hasRows_ = true;
        if (isLive_)
            std::fflush(stdout);
    }

    void End() override
    {
        if (hasRows_ && !isLive_)
            Put("\n]\n");
    }

private:
    const bool isLive_;
    bool hasRows_ = false;
};

class CsvWriter : public ListWriter
{
public:
    explicit CsvWriter(bool isLive) : isLive_(isLive) {}

    void Row(const Record &record) override
    {
        std::string names;
        std::string values;
        for (std::size_t i = 0; i < record.Fields().size(); ++i) {
            names += (i == 0 ? "" : ",") + CsvCell(record.Fields()[i].Name);
            values += (i == 0 ? "" : ",") + CsvCell(record.At(i));
        }
        Put((hasRows_ ? "" : names + "\n") + values + "\n");
        hasRows_ = true;
        if (isLive_)
            std::fflush(stdout);
    }

private:
    const bool isLive_;
    bool hasRows_ = false;
};

} // namespace

std::unique_ptr<ListWriter> MakeListWriter(Format format, const ListStyle &style)
{
    switch (format) {
    case Format::Json:
        return std::make_unique<JsonWriter>(style.IsLive);
    case Format::Csv:
        return std::make_unique<CsvWriter>(style.IsLive);
    case Format::Table:
        break;
    }
    return std::make_unique<TableWriter>(style);
}

void WriteRecord(Format format, const Record &record, StatusWords status)
{
    if (format == Format::Json) {
        Put(JsonText(record, 2) + "\n");
        return;
    }
    if (format == Format::Csv) {
        CsvWriter(false).Row(record);
        return;
    }
    std::size_t width = 0;
    for (const Field &field : record.Fields())
        width = std::max(width, std::string(field.Name).size());
    for (std::size_t i = 0; i < record.Fields().size(); ++i) {
        const std::string value = TableCell(record, i, status);
        const std::string name = record.Fields()[i].Name;
        Put(value.empty()
                ? Heading(name) + "\n"
                : Heading(name) + std::string(width - name.size() + 2, ' ') + value + "\n");
    }
}

std::string Printable(const std::string &text)
{
    std::string result = text;
    unsigned char before = 0;
    for (char &c : result) {
        const auto byte = static_cast<unsigned char>(c);
        // C2 begins the control characters beyond ASCII, 80 to 9F.
        if (byte < 0x20 || byte == 0x7F || (before == 0xC2 && byte >= 0x80 && byte < 0xA0))
            c = '?';
        before = byte;
    }
    return result;
}

} // namespace nimbra::ctl
