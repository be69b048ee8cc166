#pragma once

#include <span>
#include <string_view>

#include <nimbra-client/Record.h>

namespace nimbra::client {

/// How a list command hands out its rows.
enum class Paging
{
    None,       ///< no list
    AllAtOnce,  ///< the whole list in every answer
    Pages,      ///< by Offset and Limit, with the number of rows in Total
    NewestFirst ///< by Offset and Limit, new rows in front; Total says nothing
};

/// What the answer to a command holds behind "Result=0".
struct Reply
{
    std::string_view Word; ///< of the request
    std::span<const Field> Header;
    std::span<const Field> Row;
    client::Paging Paging;
};

/// Every command of the protocol, in the order in which the panel looks for their words.
[[nodiscard]] std::span<const Reply> AllReplies();

/// The command with this word, in any case; null when the protocol has none.
[[nodiscard]] const Reply *FindReply(std::string_view word);

} // namespace nimbra::client
