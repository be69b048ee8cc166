// Number, date and date-time texts: the agent and a model read the same values, in several time
// zones, and a time that is written as a text reads back as the same time.

#include "fuzz/Finding.h"
#include "fuzz/ValueModel.h"
#include "protocol/DateTime.h"
#include "protocol/Request.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>

namespace nimbra::fuzz {
namespace {

/// A zone without daylight saving, and how many seconds its clocks are ahead of UTC.
struct Zone
{
    const char *Name;
    std::int64_t Ahead;
};
constexpr Zone kZones[] = {{"UTC0", 0}, {"AAA-5:30", 19800}, {"BBB8", -28800}};

void CheckReading(const std::string &text, const Zone &zone)
{
    setenv("TZ", zone.Name, 1);
    tzset();
    const ModelTime time = TimeIn(text, zone.Ahead);
    std::int32_t seconds = 0;
    const std::int32_t returned = StringToTime(text.c_str(), &seconds);
    RequireEqual("StringToTime returns what it stores", seconds, returned);
    if (time.IsCertain)
        RequireEqual("StringToTime", time.Seconds, seconds);
    const ModelTime date = DateIn(text, zone.Ahead);
    RequireEqual("StringToDate returns what it stores", StringToDate(text.c_str(), &seconds),
                 seconds);
    if (date.IsCertain)
        RequireEqual("StringToDate", date.Seconds, seconds);
}

/// In UTC.
void CheckWriting(std::int32_t seconds)
{
    const nimbra::TimeText time = TimeToString(seconds);
    RequireEqual("TimeToString", TimeText(seconds), time.View());
    RequireEqual("DateToString", DateText(seconds), DateToString(seconds).View());
    std::int32_t back = 0;
    StringToTime(time.Get(), &back);
    RequireEqual("a time written and read", seconds, back);
}

} // namespace
} // namespace nimbra::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    using namespace nimbra::fuzz;
    std::string text(reinterpret_cast<const char *>(data), size);
    text.resize(text.find('\0') == std::string::npos ? size : text.find('\0'));
    RequireEqual("ToNumber", NumberIn(text), nimbra::ToNumber(text.c_str()));
    for (const Zone &zone : kZones)
        CheckReading(text, zone);
    setenv("TZ", "UTC0", 1);
    tzset();
    CheckWriting(NumberIn(text));
    return 0;
}
