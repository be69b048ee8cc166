#pragma once

#include "base/FixedText.h"
#include "base/Log.h"

#include <cstdint>
#include <span>

namespace nimbra {

/// One key that a handler knows, and where and how its value is kept. Made where it is used, in
/// the list given to ReadKeys: {"DoorNo", &door.No}, {"ActDate", AsDate(&card.ActDate)}.
class RequestKey
{
public:
    /// A time field that is read from date text, or from date-time text.
    struct DateField
    {
        std::int32_t *Seconds;
    };
    struct TimeField
    {
        std::int32_t *Seconds;
    };

    RequestKey(const char *name, std::int32_t *number);
    RequestKey(const char *name, DateField date);
    RequestKey(const char *name, TimeField time);
    template <std::size_t N>
    RequestKey(const char *name, FixedText<N> *text)
        : name_(name), field_(text), store_([](void *field, const char *value) {
              static_cast<FixedText<N> *>(field)->Assign(value);
          })
    {}

    /// Whether `key` is this key's name, in any case.
    [[nodiscard]] bool IsNamed(const char *key) const;
    /// Converts `value` and keeps it in the handler's field.
    void Store(const char *value) const { store_(field_, value); }

private:
    const char *name_;
    void *field_;
    void (*store_)(void *field, const char *value);
};

[[nodiscard]] inline RequestKey::DateField AsDate(std::int32_t *seconds)
{
    return {seconds};
}
[[nodiscard]] inline RequestKey::TimeField AsTime(std::int32_t *seconds)
{
    return {seconds};
}

/// Reads the decimal number that `text` begins with, 0 if there is none: the low 32 bits of its
/// value, on every board.
[[nodiscard]] std::int32_t ToNumber(const char *text);

/// Splits the command word, the text before the first "?", off `line` and returns it; null when
/// there is none. `*rest` is then the position for ReadKeys. The line is changed.
char *SplitCommand(char *line, char **rest);

/// Reads the Key=Value pairs that follow the command word, up to the first pair that lacks either.
/// Of a key given twice the last value stays; one that is not in `keys` is logged at `site` as
/// "Invalid Token: <key>" and skipped. The line is changed.
void ReadKeys(char *rest, std::span<const RequestKey> keys, const LogSite &site);

} // namespace nimbra
