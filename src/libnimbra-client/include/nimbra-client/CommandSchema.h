#pragma once

#include <span>
#include <string_view>

#include <nimbra-client/Record.h>

namespace nimbra::client {

/// How a command returns the rows of a list.
enum class Paging
{
    None,       ///< not a list command
    AllAtOnce,  ///< every response holds the whole list
    Pages,      ///< pages by Offset and Limit; Total is the number of rows
    NewestFirst ///< pages by Offset and Limit, new rows first; Total is not the number of rows
};

/// The fields of a successful response to one command.
struct CommandSchema
{
    std::string_view Word;         ///< of the request, such as "GetDoorInfo"
    std::span<const Field> Header; ///< fields of the first line, after "Result=0"
    std::span<const Field> Row;    ///< fields of each row; empty unless it is a list command
    client::Paging Paging;
};

/// Returns every command of the protocol, in the order in which the panel searches a line for their
/// words. The table is constant. Any thread.
[[nodiscard]] std::span<const CommandSchema> CommandSchemas();

/// Returns the command with this word, in any case; null when the protocol has no such command. Any
/// thread.
[[nodiscard]] const CommandSchema *FindCommandSchema(std::string_view word);

} // namespace nimbra::client
