#pragma once

#include <memory>
#include <string>

#include <nimbra-client/Record.h>

namespace nimbra::ctl {

enum class Format
{
    Table,
    Json,
    Csv
};

/// What the field "Status" reads as in a table.
struct StatusWords
{
    const char *Zero;
    const char *One;
};

inline constexpr StatusWords kLockWords{"locked", "unlocked"};
inline constexpr StatusWords kSwitchWords{"off", "on"};

/// Writes records to standard output as they come. Nothing is written before the first one.
class ListWriter
{
public:
    virtual ~ListWriter() = default;
    virtual void Row(const client::Record &record) = 0;
    /// Must be called behind the last row.
    virtual void End() {}
};

struct ListStyle
{
    StatusWords Status{"0", "1"};
    /// Each row is written at once; JSON is then one object a line, without an array around.
    bool IsLive = false;
};

[[nodiscard]] std::unique_ptr<ListWriter> MakeListWriter(Format format, const ListStyle &style);

/// Writes one record: a line for each field, a JSON object, or CSV with one row.
void WriteRecord(Format format, const client::Record &record, StatusWords status = {"0", "1"});

/// The text with everything that could move a terminal's cursor replaced.
[[nodiscard]] std::string Printable(const std::string &text);

} // namespace nimbra::ctl
