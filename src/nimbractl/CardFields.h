#pragma once

#include "nimbractl/Context.h"
#include "nimbractl/Fields.h"

#include <array>

namespace nimbra::ctl {

/// The fields of a card that can be given.
inline constexpr std::array<FieldOption, 9> kCardFields{{
    {"--user-no", {"UserNo", client::FieldKind::Number}, "Number of the card's user"},
    {"--format",
     {"FormatNo", client::FieldKind::Number},
     "Number of the card's format; see formats"},
    {"--card-number", {"CardNumber", client::FieldKind::Text}, "The number encoded in the card"},
    {"--key-number", {"KeyNumber", client::FieldKind::Number}, "Key number"},
    {"--status",
     {"CardStatus", client::FieldKind::Number},
     "Status of the card, a number of the panel"},
    {"--type", {"CardType", client::FieldKind::Number}, "Type of the card, a number of the panel"},
    {"--never-expire",
     {"NeverExpire", client::FieldKind::Number},
     "1 for a card that never expires, else 0"},
    {"--valid-from", {"ActDate", client::FieldKind::Date}, "First day on which the card is valid"},
    {"--expires", {"ExpDate", client::FieldKind::Date}, "Day on which the card expires"},
}};

/// Dates are days of the panel's calendar, which stores them as local midnight.
void UsePanelDays(Context &context, client::Record &card);

} // namespace nimbra::ctl
