#include "nimbractl/Import.h"

#include "nimbractl/CsvFile.h"
#include "nimbractl/ProgressBar.h"
#include "nimbractl/Signals.h"
#include "nimbractl/TextWidth.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <set>
#include <utility>

namespace nimbra::ctl {

namespace {

using client::FieldKind;
using client::Record;
using client::Request;

/// Of a file with more faults than this, only the first are written.
constexpr std::size_t kMostFaults = 20;

/// The most that is written of a column's name; a file that is no CSV may have any.
constexpr std::size_t kMostOfColumn = 40;

/// The place of a row, before a sentence about it.
std::string Place(const std::string &file, int line)
{
    return file + ", line " + std::to_string(line) + ": ";
}

const FieldOption *FindField(const ImportKind &kind, const std::string &name)
{
    const auto found =
        std::find_if(kind.Fields.begin(), kind.Fields.end(),
                     [&name](const FieldOption &option) { return option.Field.Name == name; });
    return found == kind.Fields.end() ? nullptr : &*found;
}

/// The value that an empty one stands for.
std::string EmptyValue(FieldKind kind)
{
    if (kind == FieldKind::Number)
        return "0";
    return kind == FieldKind::Date ? std::string(kNoDate) : "";
}

/// Reads the rows of a file and finds the faults that show without the panel. Texts and dates are
/// checked later: a record of the panel may hold some that cannot be sent.
class RowReader
{
public:
    RowReader(const ImportKind &kind, const std::vector<std::string> &header, ImportFaults &faults)
        : kind_(kind), header_(header), faults_(faults)
    {}

    void CheckHeader(int line)
    {
        std::set<std::string> known;
        for (const std::string &column : header_)
            if (!known.insert(column).second)
                faults_.Add(line, column, "The column is there twice.");
            else if (column.empty() || (column != kind_.NumberKey && column != kind_.ReadOnly &&
                                        FindField(kind_, column) == nullptr))
                faults_.Add(line, column, "There is no such column; the columns are " + Columns());
    }

    [[nodiscard]] ImportRow Read(const CsvRow &csv)
    {
        ImportRow row;
        row.Line = csv.Line;
        if (csv.Values.size() != header_.size()) {
            faults_.Add(csv.Line, "",
                        "The row has " + std::to_string(csv.Values.size()) +
                            (csv.Values.size() == 1 ? " value" : " values") + "; the header has " +
                            std::to_string(header_.size()) + ".");
            return row;
        }
        for (std::size_t i = 0; i < header_.size(); ++i)
            TakeValue(header_[i], csv.Values[i], &row);
        if (row.Number == 0)
            CheckNew(row);
        else if (const auto [at, isNew] = lines_.emplace(row.Number, row.Line); !isNew)
            faults_.Add(row.Line, kind_.NumberKey,
                        "Line " + std::to_string(at->second) + " has this number, too.");
        return row;
    }

private:
    [[nodiscard]] std::string Columns() const
    {
        std::string names = kind_.NumberKey;
        for (const FieldOption &option : kind_.Fields)
            names += std::string(", ") + option.Field.Name;
        return names + ".";
    }

    void TakeValue(const std::string &column, const std::string &text, ImportRow *row)
    {
        if (column == kind_.NumberKey) {
            TakeNumber(text, row);
            return;
        }
        if (column == kind_.ReadOnly) {
            row->ReadOnly = text;
            return;
        }
        const FieldOption &option = *FindField(kind_, column);
        std::string value = text.empty() ? EmptyValue(option.Field.Kind) : text;
        const std::string fault =
            option.Field.Kind == FieldKind::Number ? FindFault(option, value) : "";
        if (!fault.empty())
            faults_.Add(row->Line, column, fault);
        else
            row->Given[column] = value;
    }

    void TakeNumber(const std::string &text, ImportRow *row)
    {
        std::string value = text;
        if (const std::string fault = text.empty() ? "" : IsNumber(1)(value); !fault.empty())
            faults_.Add(row->Line, kind_.NumberKey, fault + ".");
        else if (!text.empty())
            row->Number = std::stoi(value);
    }

    void CheckNew(const ImportRow &row)
    {
        for (const std::string &field : kind_.Required)
            if (std::find(header_.begin(), header_.end(), field) == header_.end())
                faults_.Add(row.Line, field, "A new record needs this column.");
    }

    const ImportKind &kind_;
    const std::vector<std::string> &header_;
    ImportFaults &faults_;
    std::map<int, int> lines_; ///< of the numbers
};

std::vector<ImportRow> ReadRows(const Context &context, const ImportKind &kind,
                                const std::string &file)
{
    const std::vector<CsvRow> csv = ReadCsvFile(file);
    if (csv.empty())
        throw LocalFailure(file + " is empty; its first line must name the columns.");
    ImportFaults faults(file);
    RowReader reader(kind, csv[0].Values, faults);
    reader.CheckHeader(csv[0].Line);
    faults.ThrowIfAny(context);
    std::vector<ImportRow> rows;
    for (std::size_t i = 1; i < csv.size(); ++i)
        rows.push_back(reader.Read(csv[i]));
    faults.ThrowIfAny(context);
    return rows;
}

bool HasChanges(const std::vector<ImportRow> &rows)
{
    return std::any_of(rows.begin(), rows.end(),
                       [](const ImportRow &row) { return row.Number != 0; });
}

ImportRecords ReadRecords(Context &context, const ImportKind &kind,
                          const std::vector<ImportRow> &rows)
{
    ImportRecords records(std::in_place);
    const int result = context.Panel.Get().List(Request(kind.ListWord), [&](const Record &row) {
        Record record = row;
        if (kind.Edit)
            kind.Edit(record);
        const int number = record.Number(kind.NumberKey);
        records->insert_or_assign(number, std::move(record));
        return true;
    });
    // Result 1 is that of an empty list, and of one that the panel cannot read.
    if (result != 0 && (HasChanges(rows) || (result == 1 && !records->empty())))
        throw Refused(kind.ListWord, result);
    return result > 1 ? std::nullopt : records;
}

/// Finds the records of the rows with a number, and leaves only the values that differ.
void Compare(const ImportKind &kind, const ImportRecords &records, std::vector<ImportRow> &rows,
             ImportFaults &faults)
{
    for (ImportRow &row : rows) {
        if (row.Number == 0)
            continue;
        const auto found = records->find(row.Number);
        if (found == records->end()) {
            faults.Add(row.Line, kind.NumberKey, kind.NoSuchOne);
            continue;
        }
        row.Before = &found->second;
        std::erase_if(row.Given, [&row](const auto &field) {
            return row.Before->Text(field.first) == field.second;
        });
    }
}

/// Finds faults of the values that are sent. Texts of another system's file may not be UTF-8.
void CheckValues(const ImportKind &kind, std::vector<ImportRow> &rows, ImportFaults &faults)
{
    for (ImportRow &row : rows) {
        const bool isMissing = row.Number != 0 && row.Before == nullptr;
        if (isMissing || row.IsUnchanged())
            continue;
        for (auto &[field, value] : row.Given)
            if (!IsUtf8(value))
                faults.Add(row.Line, field, "The value is not UTF-8.");
            else if (const std::string fault = FindFault(*FindField(kind, field), value);
                     !fault.empty())
                faults.Add(row.Line, field, fault);
        for (const std::string &field : kind.Required) {
            const std::string value = row.After(field);
            const bool isNumber = FindField(kind, field)->Field.Kind == FieldKind::Number;
            if (value.empty() || (isNumber && value == "0"))
                faults.Add(row.Line, field,
                           isNumber ? "The value cannot be empty or 0."
                                    : "The value cannot be empty.");
        }
    }
}

/// Returns the request of a row.
Request MakeRequest(const ImportKind &kind, const ImportRow &row, bool mayCut)
{
    Request request(row.Before == nullptr ? kind.AddWord : kind.SetWord);
    if (row.Before == nullptr) {
        AddGiven(request, kind.Fields, row.Given);
    } else {
        request.Number(kind.NumberKey, row.Number);
        AddGivenOrKept(request, kind.Fields, row.Given, *row.Before, mayCut);
    }
    static_cast<void>(request.Line());
    return request;
}

/// Returns the requests of the rows, none for a row that changes nothing.
std::vector<std::optional<Request>> MakeRequests(const ImportKind &kind,
                                                 const std::vector<ImportRow> &rows, bool mayCut,
                                                 ImportFaults &faults)
{
    std::vector<std::optional<Request>> requests;
    for (const ImportRow &row : rows) {
        requests.emplace_back();
        try {
            if (!row.IsUnchanged())
                requests.back() = MakeRequest(kind, row, mayCut);
        } catch (const WrongUsage &error) {
            faults.Add(row.Line, "", error.what());
        } catch (const client::RequestError &error) {
            faults.Add(row.Line, "", error.what());
        }
    }
    return requests;
}

/// What an import has done with the rows.
struct Summary
{
    int Added = 0;
    int Changed = 0;
    int Unchanged = 0;
    int Refused = 0;
    int Unknown = 0; ///< sent, and no response has arrived
    int NotSent = 0;

    [[nodiscard]] std::string Sentence(const std::string &title) const
    {
        std::string text = title + ": " + std::to_string(Added) + " added, " +
                           std::to_string(Changed) + " changed, " + std::to_string(Unchanged) +
                           " unchanged";
        for (const auto &[number, words] : {std::pair{Refused, " refused"},
                                            {Unknown, " sent without a response"},
                                            {NotSent, " not sent"}})
            if (number > 0)
                text += ", " + std::to_string(number) + words;
        return text + ".";
    }

    void Write(Context &context, const std::string &title) const
    {
        constexpr static std::array<client::Field, 6> kFields{{{"Added", FieldKind::Number},
                                                               {"Changed", FieldKind::Number},
                                                               {"Unchanged", FieldKind::Number},
                                                               {"Refused", FieldKind::Number},
                                                               {"Unknown", FieldKind::Number},
                                                               {"NotSent", FieldKind::Number}}};
        Record record(kFields, "");
        for (const auto &[name, number] : {std::pair{"Added", Added},
                                           {"Changed", Changed},
                                           {"Unchanged", Unchanged},
                                           {"Refused", Refused},
                                           {"Unknown", Unknown},
                                           {"NotSent", NotSent}})
            record.Set(name, std::to_string(number));
        WriteDone(context, Sentence(title), record);
    }
};

std::string Changes(const ImportKind &kind, const ImportRow &row)
{
    std::string text;
    for (const FieldOption &option : kind.Fields) {
        const auto given = row.Given.find(option.Field.Name);
        if (given == row.Given.end() ||
            (row.Before == nullptr && given->second == EmptyValue(option.Field.Kind)))
            continue;
        const std::string before =
            row.Before == nullptr ? "" : "\"" + row.Before->Text(given->first) + "\" -> ";
        text +=
            (text.empty() ? "" : ", ") + given->first + " " + before + "\"" + given->second + "\"";
    }
    return text;
}

/// Writes the rows that would be added or changed.
void WritePlan(Context &context, const ImportKind &kind, const std::vector<ImportRow> &rows)
{
    const std::array<client::Field, 4> fields{{{"Line", FieldKind::Number},
                                               {"Action", FieldKind::Text},
                                               {kind.NumberKey, FieldKind::Number},
                                               {"Changes", FieldKind::Text}}};
    const auto writer = MakeListWriter(context.Options.Output, fields);
    Summary summary;
    for (const ImportRow &row : rows) {
        if (row.IsUnchanged()) {
            ++summary.Unchanged;
            continue;
        }
        const bool isNew = row.Before == nullptr;
        ++(isNew ? summary.Added : summary.Changed);
        Record record(fields, "");
        record.Set("Line", std::to_string(row.Line));
        record.Set("Action", isNew ? "add" : "change");
        record.Set(kind.NumberKey, isNew ? "" : std::to_string(row.Number));
        record.Set("Changes", Changes(kind, row));
        writer->Row(record);
    }
    writer->End();
    std::fflush(stdout);
    WriteNote("Nothing is sent. Without --dry-run: " + summary.Sentence(kind.Title));
}

/// While it exists, Ctrl-C cancels the wait for the panel, so that the import can report what it
/// has done. The interactive shell does this itself.
class Interruption
{
public:
    explicit Interruption(Context &context) : context_(context)
    {
        if (context.Panel.IsCancelled)
            return;
        signals_.emplace(std::initializer_list<int>{SIGINT, SIGTERM});
        signals_->Open();
        context.Panel.IsCancelled = [this] {
            hasArrived_ = hasArrived_ || SignalCatcher::Take() != 0;
            return hasArrived_;
        };
    }
    ~Interruption()
    {
        if (signals_)
            context_.Panel.IsCancelled = nullptr;
    }
    Interruption(const Interruption &) = delete;
    Interruption &operator=(const Interruption &) = delete;

private:
    Context &context_;
    std::optional<SignalCatcher> signals_;
    bool hasArrived_ = false;
};

/// Sends the requests of the rows one after another, and counts in `*summary` what becomes of them.
void Send(Context &context, const ImportChoice &choice, const std::vector<ImportRow> &rows,
          const std::vector<std::optional<Request>> &requests, Summary *summary)
{
    const Interruption interruption(context);
    client::Session &session = context.Panel.Get();
    const auto total = static_cast<std::size_t>(summary->NotSent);
    ProgressBar bar("Importing");
    for (std::size_t i = 0; i < rows.size(); ++i) {
        if (!requests[i])
            continue;
        context.Panel.CheckCancelled();
        --summary->NotSent;
        ++summary->Unknown;
        int result = 0;
        try {
            result = session.Execute(*requests[i]).Result;
        } catch (const client::ConnectionError &error) {
            throw client::ConnectionError(Place(choice.File, rows[i].Line) + error.what());
        }
        --summary->Unknown;
        bar.Show(total - static_cast<std::size_t>(summary->NotSent), total);
        if (result == 0) {
            ++(rows[i].Before == nullptr ? summary->Added : summary->Changed);
            continue;
        }
        ++summary->Refused;
        const std::string sentence =
            Place(choice.File, rows[i].Line) + Refused(requests[i]->Word(), result).what();
        if (!choice.MayContinue)
            throw Refused(sentence);
        bar.EndLine();
        WriteError(context, sentence);
    }
}

} // namespace

std::string ImportRow::After(const std::string &field) const
{
    if (const auto given = Given.find(field); given != Given.end())
        return given->second;
    return Before == nullptr ? "" : Before->Text(field);
}

void ImportFaults::Add(int line, const std::string &column, const std::string &sentence)
{
    sentences_.emplace(line, file_ + ", line " + std::to_string(line) +
                                 (column.empty() ? "" : ", " + Shortened(column, kMostOfColumn)) +
                                 ": " + sentence);
}

void ImportFaults::ThrowIfAny(const Context &context) const
{
    if (sentences_.empty())
        return;
    std::size_t written = 0;
    for (const auto &[line, sentence] : sentences_) {
        WriteError(context, sentence);
        if (++written == kMostFaults)
            break;
    }
    const std::size_t rest = sentences_.size() - written;
    throw LocalFailure((rest > 0 ? "There are " + std::to_string(rest) + " more faults. " : "") +
                       "Nothing is sent.");
}

void AddImportOptions(CLI::App &app, ImportChoice &choice)
{
    app.add_option("file", choice.File, "The CSV file")->required()->option_text("FILE");
    app.add_flag("--dry-run", choice.IsDryRun,
                 "Show what would be added and changed, and send no change");
    app.add_flag("--continue", choice.MayContinue, "Go on after a row that the panel refused");
    app.add_flag("--accept-cut", choice.MayCut,
                 "Cut texts that the file does not change to the 32 bytes that the panel reports");
}

void RunImport(Context &context, const ImportKind &kind, const ImportChoice &choice)
{
    std::vector<ImportRow> rows = ReadRows(context, kind, choice.File);
    static_cast<void>(context.Panel.Get());
    ImportRecords records;
    if (HasChanges(rows) || kind.Check)
        records = ReadRecords(context, kind, rows);
    ImportFaults faults(choice.File);
    Compare(kind, records, rows, faults);
    CheckValues(kind, rows, faults);
    faults.ThrowIfAny(context);
    const auto requests = MakeRequests(kind, rows, choice.MayCut, faults);
    if (kind.Check)
        kind.Check(rows, records, faults);
    faults.ThrowIfAny(context);
    if (choice.IsDryRun) {
        WritePlan(context, kind, rows);
        return;
    }
    Summary summary;
    for (const ImportRow &row : rows)
        ++(row.IsUnchanged() ? summary.Unchanged : summary.NotSent);
    try {
        Send(context, choice, rows, requests, &summary);
    } catch (...) {
        summary.Write(context, kind.Title);
        throw;
    }
    summary.Write(context, kind.Title);
    if (summary.Refused > 0)
        throw Refused("The panel refused " + std::to_string(summary.Refused) + " of the rows.");
}

} // namespace nimbra::ctl
