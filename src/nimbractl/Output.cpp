#include "nimbractl/Output.h"

#include "nimbractl/Errors.h"
#include "nimbractl/Terminal.h"
#include "nimbractl/TextWidth.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include <unistd.h>

namespace nimbra::ctl {

namespace {

using client::Field;
using client::FieldKind;
using client::Record;
using Json = nlohmann::ordered_json;

/// The widths of a table's columns are those of its first rows.
constexpr std::size_t kRowsForWidths = 200;

/// A column is not cut to less than this on a terminal.
constexpr std::size_t kLeastColumnWidth = 4;

/// While other columns can give way, texts are not cut to less than this,
constexpr std::size_t kReadableWidth = 8;

/// and as long as columns can be left out, not to less than this.
constexpr std::size_t kGoodWidth = 12;

/// The columns that a narrow terminal does not show, the first of these first. Most are numbers
/// that say little without a table of their meanings.
constexpr std::array<std::string_view, 13> kLeftOutFirst = {
    "DeviceType", "VideoTag", "DevicePort", "KeyNumber", "CardStatus", "CardType", "FormatNo",
    "MiddleName", "Exempt",   "Ada",        "CardNo",    "UserNo",     "EventCode"};

/// The end of a heading that lacks columns.
constexpr std::string_view kMoreColumns = "  …";
constexpr std::size_t kMoreColumnsWidth = 3;

constexpr std::string_view kColumnGap = "  ";

/// The field for the name of the panel.
constexpr char kPanelField[] = "Panel";

/// The width of a column whose rows cannot be measured beforehand.
std::size_t LiveWidth(const Field &field)
{
    const std::size_t name = std::strlen(field.Name);
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

std::string Heading(const std::string &text)
{
    const char *noColour = std::getenv("NO_COLOR");
    const bool hasColour =
        CanMoveCursor(STDOUT_FILENO) && (noColour == nullptr || *noColour == '\0');
    return hasColour ? "\033[1m" + text + "\033[0m" : text;
}

void Put(const std::string &text)
{
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size())
        throw LocalFailure(std::string("Cannot write the output: ") + std::strerror(errno) + ".");
}

/// The fields to show, as indexes of the record's fields.
using Selection = std::vector<std::size_t>;

Selection SelectFields(const OutputOptions &options, std::span<const Field> fields)
{
    Selection selection;
    for (const std::string &name : options.Fields) {
        const auto found = std::find_if(fields.begin(), fields.end(),
                                        [&name](const Field &field) { return field.Name == name; });
        if (found == fields.end()) {
            std::string names;
            for (const Field &field : fields)
                names += (names.empty() ? "" : ", ") + std::string(field.Name);
            throw WrongUsage("There is no field \"" + name + "\" here; the fields are " + names +
                             ".");
        }
        selection.push_back(static_cast<std::size_t>(found - fields.begin()));
    }
    for (std::size_t i = 0; options.Fields.empty() && i < fields.size(); ++i)
        selection.push_back(i);
    return selection;
}

/// The text of a value in a table: words in place of the numbers that stand for them.
std::string TableText(const Record &record, std::size_t index, StatusWords status)
{
    const std::string_view name = record.Fields()[index].Name;
    const std::string &value = record.At(index);
    if (name == "Status")
        return record.Number("Status") != 0 ? status.One : status.Zero;
    if (name == "SelectType" && (value == "1" || value == "2"))
        return value == "1" ? "levels" : "groups";
    if (name == "NeverExpire" && (value == "0" || value == "1"))
        return value == "1" ? "yes" : "no";
    if (name == "ExpDate" && record.Number("NeverExpire") != 0)
        return "never";
    if (record.Fields()[index].Kind == FieldKind::Date && value == kNoDate)
        return "none";
    return Printable(value);
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

/// Bytes that are not UTF-8 (the panel cuts texts at any byte) become replacement characters.
std::string JsonText(const Record &record, const Selection &selection, int indent)
{
    Json object = Json::object();
    for (const std::size_t i : selection)
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
    TableWriter(const OutputOptions &options, std::span<const Field> fields, const ListStyle &style)
        : style_(style), selection_(SelectFields(options, fields)),
          mayCut_(!options.IsWide && IsOutputTerminal()), mayLeaveOut_(options.Fields.empty())
    {
        for (const std::size_t i : selection_)
            columns_.push_back({fields[i].Name, fields[i].Kind == FieldKind::Text,
                                style.IsLive ? LiveWidth(fields[i]) : 0, 0});
    }

    void Row(const Record &record) override
    {
        if (style_.IsLive)
            Begin();
        std::vector<std::string> cells;
        for (const std::size_t i : selection_)
            cells.push_back(TableText(record, i, style_.Status));
        if (!isMeasuring_) {
            PutRow(cells);
            return;
        }
        for (std::size_t i = 0; i < cells.size(); ++i)
            columns_[i].Content = std::max(columns_[i].Content, DisplayWidth(cells[i]));
        rows_.push_back(std::move(cells));
        if (rows_.size() == kRowsForWidths)
            Begin();
    }

    void End() override
    {
        if (!rows_.empty())
            Begin();
    }

private:
    struct Column
    {
        std::string Name;
        bool IsText;
        std::size_t Content; ///< the width of the widest value
        std::size_t Width;
    };

    /// Writes the heading and the rows that were measured.
    void Begin()
    {
        if (!isMeasuring_)
            return;
        isMeasuring_ = false;
        for (Column &column : columns_)
            column.Width = std::max(column.Content, column.Name.size());
        const bool isComplete = !mayCut_ || FitTerminal();
        PutHeading(isComplete ? "" : kMoreColumns);
        for (const std::vector<std::string> &row : rows_)
            PutRow(row);
        rows_.clear();
    }

    /// Leaves out columns and makes others narrower until a row fits. Returns false when columns
    /// are left out.
    bool FitTerminal()
    {
        std::size_t limit = GetTerminalSize().Columns;
        const auto good = [](const Column &column) {
            return column.IsText ? std::min(column.Width, kGoodWidth) : column.Width;
        };
        bool isComplete = true;
        for (const auto *name = kLeftOutFirst.begin();
             mayLeaveOut_ && name != kLeftOutFirst.end() && RowWidth(good) > limit; ++name)
            if (LeaveOut(*name) && std::exchange(isComplete, false))
                limit -= std::min(limit, kMoreColumnsWidth);
        CutTo(limit,
              [](const Column &column) { return column.IsText ? kReadableWidth : column.Width; });
        CutTo(limit, [](const Column &column) { // headings before numbers and times
            return column.IsText ? kLeastColumnWidth : std::max(column.Content, kLeastColumnWidth);
        });
        CutTo(limit, [](const Column &) { return kLeastColumnWidth; });
        return isComplete;
    }

    template <typename WidthOf>
    [[nodiscard]] std::size_t RowWidth(const WidthOf &widthOf) const
    {
        std::size_t total = kColumnGap.size() * (columns_.size() - 1);
        for (const Column &column : columns_)
            total += widthOf(column);
        return total;
    }

    /// Removes a column, if there is one of this name that does not identify the row.
    bool LeaveOut(std::string_view name)
    {
        const auto first = columns_.begin() + (columns_[0].Name == kPanelField ? 2 : 1);
        const auto found = std::find_if(
            first, columns_.end(), [name](const Column &column) { return column.Name == name; });
        if (found == columns_.end())
            return false;
        const auto index = found - columns_.begin();
        columns_.erase(found);
        selection_.erase(selection_.begin() + index);
        for (std::vector<std::string> &row : rows_)
            row.erase(row.begin() + index);
        return true;
    }

    /// Makes the widest columns narrower until a row fits, none narrower than `leastOf` says.
    template <typename LeastOf>
    void CutTo(std::size_t limit, const LeastOf &leastOf)
    {
        const auto spare = [&leastOf](const Column &column) {
            return column.Width > leastOf(column) ? column.Width : 0;
        };
        std::size_t total = RowWidth([](const Column &column) { return column.Width; });
        for (; total > limit; --total) {
            const auto widest = std::max_element(
                columns_.begin(), columns_.end(),
                [&spare](const Column &a, const Column &b) { return spare(a) < spare(b); });
            if (spare(*widest) == 0)
                return;
            --widest->Width;
        }
    }

    [[nodiscard]] std::string Line(const std::vector<std::string> &cells) const
    {
        std::string line;
        for (std::size_t i = 0; i < cells.size(); ++i) {
            const std::size_t width = columns_[i].Width;
            line += i == 0 ? "" : kColumnGap;
            line += Padded(mayCut_ ? Shortened(cells[i], width) : cells[i], width);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        return line;
    }

    void PutHeading(std::string_view end) const
    {
        std::vector<std::string> names;
        for (const Column &column : columns_)
            names.push_back(column.Name);
        PutLine(Heading(Line(names).append(end)));
    }
    void PutRow(const std::vector<std::string> &cells) const { PutLine(Line(cells)); }
    void PutLine(const std::string &line) const
    {
        Put(line + "\n");
        if (style_.IsLive)
            std::fflush(stdout);
    }

    const ListStyle style_;
    Selection selection_;
    const bool mayCut_;
    const bool mayLeaveOut_;
    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
    bool isMeasuring_ = true;
};

/// Writes one object a line.
class JsonLinesWriter : public ListWriter
{
public:
    JsonLinesWriter(Selection selection, const ListStyle &style)
        : selection_(std::move(selection)), isLive_(style.IsLive)
    {}

    void Row(const Record &record) override
    {
        Put(JsonText(record, selection_, -1) + "\n");
        if (isLive_)
            std::fflush(stdout);
    }
    void End() override {}

private:
    const Selection selection_;
    const bool isLive_;
};

/// Writes an array of objects. A row is held back until it is known whether a comma follows it, so
/// that all that is written ends with a line: an error message may come after it.
class JsonWriter : public ListWriter
{
public:
    explicit JsonWriter(Selection selection) : selection_(std::move(selection)) {}

    void Row(const Record &record) override
    {
        Put(last_.empty() ? "[\n" : last_ + ",\n");
        last_ = "  " + JsonText(record, selection_, -1);
    }
    void End() override { Put(last_.empty() ? "[]\n" : last_ + "\n]\n"); }

private:
    const Selection selection_;
    std::string last_;
};

class CsvWriter : public ListWriter
{
public:
    CsvWriter(Selection selection, std::span<const Field> fields, const ListStyle &style)
        : selection_(std::move(selection)), isLive_(style.IsLive)
    {
        for (const std::size_t i : selection_)
            header_ += (header_.empty() ? "" : ",") + CsvCell(fields[i].Name);
    }

    void Row(const Record &record) override
    {
        std::string values;
        for (std::size_t i = 0; i < selection_.size(); ++i)
            values += (i == 0 ? "" : ",") + CsvCell(record.At(selection_[i]));
        PutHeader();
        Put(values + "\n");
        if (isLive_)
            std::fflush(stdout);
    }
    void End() override { PutHeader(); }

private:
    void PutHeader()
    {
        if (!hasHeader_)
            Put(header_ + "\n");
        hasHeader_ = true;
    }

    const Selection selection_;
    const bool isLive_;
    std::string header_;
    bool hasHeader_ = false;
};

} // namespace

class JoinedList::PanelRows : public ListWriter
{
public:
    explicit PanelRows(JoinedList &joined) : joined_(joined) {}

    void Row(const Record &record) override
    {
        Record row(joined_.fields_, "");
        row.Set(kPanelField, joined_.panel_);
        for (std::size_t i = 0; i < record.Fields().size(); ++i)
            row.Set(record.Fields()[i].Name, record.At(i));
        joined_.list_->Row(row);
        joined_.hasEnd_ = true;
    }
    void End() override { joined_.hasEnd_ = true; }

private:
    JoinedList &joined_;
};

std::unique_ptr<ListWriter> JoinedList::MakeWriter(const OutputOptions &options,
                                                   std::span<const Field> fields,
                                                   const ListStyle &style)
{
    if (!list_) {
        fields_ = {{kPanelField, FieldKind::Text}};
        fields_.insert(fields_.end(), fields.begin(), fields.end());
        OutputOptions shared = options;
        shared.Joined = nullptr;
        const std::vector<std::string> &chosen = options.Fields;
        if (!chosen.empty() && std::find(chosen.begin(), chosen.end(), kPanelField) == chosen.end())
            shared.Fields.insert(shared.Fields.begin(), kPanelField);
        list_ = MakeListWriter(shared, fields_, style);
    }
    return std::make_unique<PanelRows>(*this);
}

void JoinedList::End()
{
    if (hasEnd_)
        list_->End();
}

std::unique_ptr<ListWriter> MakeListWriter(const OutputOptions &options,
                                           std::span<const Field> fields, const ListStyle &style)
{
    if (options.Joined != nullptr)
        return options.Joined->MakeWriter(options, fields, style);
    switch (options.Format) {
    case Format::Json:
        if (!style.IsLive)
            return std::make_unique<JsonWriter>(SelectFields(options, fields));
        [[fallthrough]];
    case Format::JsonLines:
        return std::make_unique<JsonLinesWriter>(SelectFields(options, fields), style);
    case Format::Csv:
        return std::make_unique<CsvWriter>(SelectFields(options, fields), fields, style);
    case Format::Table:
        break;
    }
    return std::make_unique<TableWriter>(options, fields, style);
}

void WriteRecord(const OutputOptions &options, const Record &record, StatusWords status)
{
    if (options.Joined != nullptr || options.Format == Format::JsonLines ||
        options.Format == Format::Csv) {
        const auto writer = MakeListWriter(options, record.Fields(), {.Status = status});
        writer->Row(record);
        writer->End();
        return;
    }
    const Selection selection = SelectFields(options, record.Fields());
    if (options.Format == Format::Json) {
        Put(JsonText(record, selection, 2) + "\n");
        return;
    }
    std::size_t width = 0;
    for (const std::size_t i : selection)
        width = std::max(width, std::strlen(record.Fields()[i].Name));
    for (const std::size_t i : selection) {
        const std::string value = TableText(record, i, status);
        const std::string name = record.Fields()[i].Name;
        Put(Heading(name) +
            (value.empty() ? "" : std::string(width - name.size(), ' ') + "  " + value) + "\n");
    }
}

} // namespace nimbra::ctl
