#include "nimbractl/CardFields.h"
#include "nimbractl/Context.h"
#include "nimbractl/Import.h"

#include <algorithm>
#include <set>
#include <utility>

#include <nimbra-client/Request.h>

namespace nimbra::ctl {

namespace {

using client::Record;
using client::Request;

/// A number is unique within its format.
using CardKey = std::pair<std::string, std::string>;

bool IsNewValue(const ImportRow &row, const std::string &field)
{
    return row.Before == nullptr || row.Given.contains(field);
}

/// Returns the records of a list by their number, which rows of the file refer to with the same
/// key; nothing when the login may not read them.
std::optional<std::map<std::string, Record>> ListByNumber(Context &context, const char *word,
                                                          const char *key,
                                                          const std::vector<ImportRow> &rows)
{
    std::map<std::string, Record> records;
    const int result = context.Panel.Get().List(Request(word), [&records, key](const Record &row) {
        records.emplace(row.Text(key), row);
        return true;
    });
    const bool isNeeded = std::any_of(rows.begin(), rows.end(),
                                      [key](const ImportRow &row) { return IsNewValue(row, key); });
    // Result 1 is that of an empty list, and of one that the panel cannot read.
    if (result == 1 && (isNeeded || !records.empty()))
        throw Refused(word, result);
    return result > 1 ? std::nullopt : std::optional(std::move(records));
}

/// Finds rows with a number of a user or a format that the panel lacks: it would store them.
void CheckNumbers(const std::vector<ImportRow> &rows, const std::string &field,
                  const std::map<std::string, Record> &known, const std::string &name,
                  ImportFaults &faults)
{
    for (const ImportRow &row : rows)
        if (IsNewValue(row, field) && !known.contains(row.After(field)))
            faults.Add(row.Line, field, "There is no " + name + " " + row.After(field) + ".");
}

/// Finds rows with a name that is not that of the card's format, before the import or after it.
void CheckFormatNames(const std::vector<ImportRow> &rows, const std::string &column,
                      const std::map<std::string, Record> &formats, ImportFaults &faults)
{
    for (const ImportRow &row : rows) {
        const auto format = formats.find(row.After("FormatNo"));
        const std::string name = format == formats.end()
                                     ? ""
                                     : format->second.Text("Name").substr(0, client::kNameBytes);
        const bool isOld = row.Before != nullptr && row.ReadOnly == row.Before->Text(column);
        if (!row.ReadOnly.empty() && !isOld && row.ReadOnly != name)
            faults.Add(row.Line, column,
                       "The name cannot be changed; FormatNo chooses the format.");
    }
}

/// Finds rows with the number of another card, in the order in which the panel gets them.
void CheckUnique(const std::vector<ImportRow> &rows, const std::map<int, Record> &cards,
                 ImportFaults &faults)
{
    struct Holder
    {
        int Number; ///< 0 for a new card
        int Line;
    };
    std::map<CardKey, Holder> holders;
    for (const auto &[number, card] : cards)
        holders[{card.Text("FormatNo"), card.Text("CardNumber")}] = {number, 0};
    for (const ImportRow &row : rows) {
        const CardKey key(row.After("FormatNo"), row.After("CardNumber"));
        if (row.Before != nullptr) {
            const CardKey before(row.Before->Text("FormatNo"), row.Before->Text("CardNumber"));
            if (key == before)
                continue;
            if (const auto own = holders.find(before);
                own != holders.end() && own->second.Number == row.Number)
                holders.erase(own);
        }
        const auto [at, isNew] = holders.emplace(key, Holder{row.Number, row.Line});
        if (!isNew)
            faults.Add(row.Line, "CardNumber",
                       (at->second.Number != 0 ? "Card " + std::to_string(at->second.Number)
                                               : "Line " + std::to_string(at->second.Line)) +
                           " has this number in the same format.");
    }
}

/// Reports the values that are stored for dates that new cards lack.
void NoteMissingDates(const std::vector<ImportRow> &rows)
{
    const auto lacks = [](const ImportRow &row, const char *field) {
        const std::string value = row.After(field);
        return value.empty() || value == kNoDate;
    };
    int count = 0;
    int first = 0;
    for (const ImportRow &row : rows) {
        const std::string neverExpires = row.After("NeverExpire");
        if (row.Before != nullptr || (!neverExpires.empty() && neverExpires != "0") ||
            !(lacks(row, "ActDate") || lacks(row, "ExpDate")))
            continue;
        first = ++count == 1 ? row.Line : first;
    }
    if (count > 0)
        WriteNote("New cards without both dates, and not as ones that never expire: " +
                  std::to_string(count) + ", the first in line " + std::to_string(first) +
                  ". Their dates are stored as 1970-01-01.");
}

void Check(Context &context, const ImportKind &kind, const std::vector<ImportRow> &rows,
           const ImportRecords &cards, ImportFaults &faults)
{
    // A login without the right to read users or formats may still add cards.
    if (const auto users = ListByNumber(context, "GetUserInfoEx", "UserNo", rows))
        CheckNumbers(rows, "UserNo", *users, "user", faults);
    if (const auto formats = ListByNumber(context, "GetCardFormatEx", "FormatNo", rows)) {
        CheckNumbers(rows, "FormatNo", *formats, "card format", faults);
        CheckFormatNames(rows, kind.ReadOnly, *formats, faults);
    }
    if (cards)
        CheckUnique(rows, *cards, faults);
    if (faults.IsEmpty())
        NoteMissingDates(rows);
}

void ImportCards(Context &context, const ImportChoice &choice)
{
    ImportKind kind{};
    kind.Title = "Cards";
    kind.NumberKey = "CardNo";
    kind.NoSuchOne = "There is no such card, or its format is gone.";
    kind.ListWord = "GetCardInfoEx";
    kind.AddWord = "AddCardInfo";
    kind.SetWord = "SetCardInfo";
    kind.Fields = kCardFields;
    kind.Required = {"UserNo", "FormatNo", "CardNumber"};
    kind.ReadOnly = "FormatName";
    kind.Edit = [&context](Record &card) { UsePanelDays(context, card); };
    kind.Check = [&context, &kind](const std::vector<ImportRow> &rows, const ImportRecords &cards,
                                   ImportFaults &faults) {
        Check(context, kind, rows, cards, faults);
    };
    RunImport(context, kind, choice);
}

} // namespace

void AddCardImport(CLI::App &cards, Context &context)
{
    const auto import = AddCommand<ImportChoice>(
        cards, "import",
        "Add and change cards as a CSV file says. Its first line names the columns, as cards list "
        "-o csv does, in any order; columns may be left out. A row with a CardNo changes that "
        "card, one without adds a card. FormatName is not sent. An empty value clears a field. All "
        "rows are checked before the first is sent",
        context, ImportCards);
    AddImportOptions(*import.App, *import.Into);
}

} // namespace nimbra::ctl
