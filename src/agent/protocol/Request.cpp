#include "protocol/Request.h"

#include "protocol/DateTime.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <strings.h>

namespace nimbra {

RequestKey::RequestKey(const char *name, std::int32_t *number)
    : name_(name), field_(number), store_([](void *field, const char *value) {
          *static_cast<std::int32_t *>(field) = ToNumber(value);
      })
{}

RequestKey::RequestKey(const char *name, DateField date)
    : name_(name), field_(date.Seconds), store_([](void *field, const char *value) {
          StringToDate(value, static_cast<std::int32_t *>(field));
      })
{}

RequestKey::RequestKey(const char *name, TimeField time)
    : name_(name), field_(time.Seconds), store_([](void *field, const char *value) {
          StringToTime(value, static_cast<std::int32_t *>(field));
      })
{}

bool RequestKey::IsNamed(const char *key) const
{
    return strcasecmp(name_, key) == 0;
}

std::int32_t ToNumber(const char *text)
{
    // Read 64 bits wide first: `long` has 32 on some boards, and would saturate there.
    return static_cast<std::int32_t>(std::strtoll(text, nullptr, 10));
}

char *SplitCommand(char *line, char **rest)
{
    return strtok_r(line, "?", rest);
}

void ReadKeys(char *rest, std::span<const RequestKey> keys, const LogSite &site)
{
    for (;;) {
        // An empty value makes the tokeniser run on into the next pair; clients rely on it.
        const char *key = strtok_r(nullptr, "=", &rest);
        const char *value = strtok_r(nullptr, "&", &rest);
        if (key == nullptr || value == nullptr)
            return;
        const auto known = std::find_if(keys.begin(), keys.end(),
                                        [key](const RequestKey &k) { return k.IsNamed(key); });
        if (known != keys.end())
            known->Store(value);
        else
            Log(site, "Invalid Token: %s", key);
    }
}

} // namespace nimbra
