#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nimbra-client/Record.h>

namespace nimbra::ctl {

enum class Format
{
    Table,
    Json,
    JsonLines, ///< one object a line
    Csv
};

/// The date that the panel stores for none.
inline constexpr std::string_view kNoDate = "1970-01-01";

/// The words for the values of the field "Status" in a table.
struct StatusWords
{
    const char *Zero;
    const char *One;
};

inline constexpr StatusWords kLockWords{"locked", "unlocked"};
inline constexpr StatusWords kSwitchWords{"off", "on"};

class JoinedList;

/// The form of the output.
struct OutputOptions
{
    ctl::Format Format = Format::Table;
    std::vector<std::string> Fields; ///< the fields to show, in this order; empty: all
    bool IsWide = false;             ///< a table is not cut to the width of the terminal
    JoinedList *Joined = nullptr;    ///< takes the output of a command on several panels
};

struct ListStyle
{
    StatusWords Status{"0", "1"};
    /// Each row is written at once; JSON is then one object a line, without an array around.
    bool IsLive = false;
};

/// Writes records to standard output as they arrive. One thread.
class ListWriter
{
public:
    virtual ~ListWriter() = default;
    virtual void Row(const client::Record &record) = 0;
    /// Must be called after the last row. Writes an empty list when there was no row: "[]" in JSON,
    /// the header in CSV, nothing in a table.
    virtual void End() = 0;
};

/// The output of one command on several panels: one list, whose rows begin with the panel's name.
/// One thread.
class JoinedList
{
public:
    /// The panel that the next rows are from.
    void SetPanel(const std::string &name) { panel_ = name; }
    /// Returns a writer for the rows of that panel. It and this object share the list, which has
    /// the fields and the style of the first call.
    [[nodiscard]] std::unique_ptr<ListWriter> MakeWriter(const OutputOptions &options,
                                                         std::span<const client::Field> fields,
                                                         const ListStyle &style);
    /// Must be called after the last panel. Writes an empty list only if that of a panel was empty.
    void End();

private:
    class PanelRows;

    std::string panel_;
    std::vector<client::Field> fields_; ///< with that of the panel
    std::unique_ptr<ListWriter> list_;
    bool hasEnd_ = false;
};

/// `fields` are those of every record. Throws WrongUsage when the options name a field that is not
/// among them.
[[nodiscard]] std::unique_ptr<ListWriter> MakeListWriter(const OutputOptions &options,
                                                         std::span<const client::Field> fields,
                                                         const ListStyle &style = {});

/// Writes one record: a line for each field, a JSON object, or CSV with one row. Throws WrongUsage
/// when the options name a field that is not in the record.
void WriteRecord(const OutputOptions &options, const client::Record &record,
                 StatusWords status = {"0", "1"});

} // namespace nimbra::ctl
