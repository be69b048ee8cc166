#pragma once

#include <span>

namespace nimbra::check {

/// How the agent depends on a column.
enum class Need
{
    Required,
    Indexed, ///< required, and slow on a large panel without an index that begins with it
    Optional ///< only a filter uses it, which is refused without it
};

struct Column
{
    const char *Name;
    Need Use = Need::Required;
};

struct Table
{
    const char *Database; ///< path of its file
    const char *Name;
    std::span<const Column> Columns;
    const char *Effect; ///< what does not work when some of it is missing
};

/// Every table and column that the statements of the agent name. A test compares the list with the
/// statements. Any thread.
[[nodiscard]] std::span<const Table> RequiredTables();

} // namespace nimbra::check
