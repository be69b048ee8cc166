#pragma once

#include "nimbractl/Context.h"
#include "nimbractl/Fields.h"

#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <nimbra-client/Record.h>
#include <nimbra-client/Request.h>

namespace nimbra::ctl {

/// The file and the options of an import.
struct ImportChoice
{
    std::string File;
    bool IsDryRun = false;
    bool MayContinue = false;
    bool MayCut = false;
};

/// A row of the file.
struct ImportRow
{
    int Line = 0;
    int Number = 0;    ///< of the record to change; 0 for a new record
    GivenFields Given; ///< the values of the row; of a change, only those that differ
    std::string ReadOnly;
    const client::Record *Before = nullptr; ///< the record on the panel; null for a new record

    /// Returns the value that the field has after the import; empty when a new record lacks it.
    [[nodiscard]] std::string After(const std::string &field) const;
    /// Whether the record on the panel has all values of the row.
    [[nodiscard]] bool IsUnchanged() const { return Before != nullptr && Given.empty(); }
};

/// The records on the panel by their number; nothing when the login may not read them.
using ImportRecords = std::optional<std::map<int, client::Record>>;

/// What is wrong with the rows of a file.
class ImportFaults
{
public:
    explicit ImportFaults(std::string file) : file_(std::move(file)) {}

    /// `column` is empty when the fault is that of the whole row.
    void Add(int line, const std::string &column, const std::string &sentence);
    [[nodiscard]] bool IsEmpty() const { return sentences_.empty(); }
    /// Writes the faults to standard error, and throws LocalFailure when there is one.
    void ThrowIfAny(const Context &context) const;

private:
    const std::string file_;
    std::multimap<int, std::string> sentences_; ///< by line
};

/// What is particular to one kind of records.
struct ImportKind
{
    const char *Title;     ///< of the summary: "Users"
    const char *NumberKey; ///< the column that holds the record's number
    const char *NoSuchOne; ///< a sentence for a number that the panel does not have
    const char *ListWord;  ///< the commands
    const char *AddWord;
    const char *SetWord;
    std::span<const FieldOption> Fields;
    std::vector<std::string> Required; ///< fields that cannot be empty or 0
    std::string ReadOnly;              ///< a column that lists have and no request takes
    /// Changes a record of the panel to the form that the file has.
    std::function<void(client::Record &)> Edit;
    /// Finds faults that only the panel's other records show. It reads only.
    std::function<void(const std::vector<ImportRow> &, const ImportRecords &, ImportFaults &)>
        Check;
};

/// Adds the file and the options to a command.
void AddImportOptions(CLI::App &app, ImportChoice &choice);

/// Adds and changes the records of a CSV file. Checks all rows before the first is sent, and writes
/// a summary, also after a failure. Throws LocalFailure for a file with faults, Refused when the
/// panel refused a row, and what the session throws.
void RunImport(Context &context, const ImportKind &kind, const ImportChoice &choice);

} // namespace nimbra::ctl
