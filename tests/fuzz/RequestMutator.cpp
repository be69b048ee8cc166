// Makes requests from the command table. Mixed with the fuzzer's own mutations, they reach the
// handlers far sooner than random bytes.

#include "fuzz/Commands.h"
#include "fuzz/InputSize.h"
#include "fuzz/MessageModel.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t *data, std::size_t size, std::size_t maxSize);

namespace nimbra::fuzz {
namespace {

constexpr const char *kNumbers[] = {
    "0",  "1",   "2",          "3",           "5",
    "12", "-1",  "2147483647", "-2147483648", "4294967297",
    "x",  " 4x", "+6",         "10001",       "9223372036854775808"};
constexpr const char *kTimes[] = {"2026-11-21 08:57:00", "1970-01-01 00:00:00", "2038-1-19 3:14:8",
                                  "2026-02-31",          "0-0-0 0:0:0",         "yesterday",
                                  "2023-03-01 12:00",    "99999999999-1-1"};
/// Accounts of the panel, a locked one, and one with a wrong password.
constexpr const char *kLogins[] = {"Username=admin&Password=admin1234",
                                   "Username=admin&Password=webadmin5678",
                                   "Username=viewer&Password=view4321",
                                   "Username=guard&Password=guard2468",
                                   "Username=clerk&Password=clerk1357",
                                   "Username=locked&Password=x",
                                   "Username=admin&Password=x",
                                   "Username=Anna Berg&Password=berg 1",
                                   "Username=it''s $(id) & `id`&Password=x"};

constexpr const char *kTexts[] = {"Anna",
                                  "O''Neill",
                                  "admin",
                                  "'",
                                  "a'b",
                                  "x'; DROP TABLE User;--",
                                  "' OR '1'='1",
                                  "%",
                                  "_",
                                  "''''",
                                  "$(id)`id`;id|id>x",
                                  "1 2 3",
                                  "a.jpg",
                                  "../a.jpg",
                                  ".upload-a1B2c3",
                                  "abcdefghijklmnopqrstuvwxyz12345''",
                                  "abcdefghijklmnopqrstuvwxyz123456''",
                                  "\xC3\xA9\xFF\x01",
                                  "Hello?",
                                  "a=b",
                                  ""};

/// Random choices.
class Chance
{
public:
    explicit Chance(unsigned seed) : random_(seed) {}

    std::size_t Below(std::size_t bound) { return random_() % bound; }

    template <class List>
    const auto &Any(const List &list)
    {
        return list[Below(std::size(list))];
    }

private:
    std::minstd_rand random_;
};

class Maker : private Chance
{
public:
    using Chance::Chance;

    std::string Mutate(std::vector<std::string> lines)
    {
        // The first line is the fuzzer's setup.
        const std::size_t place = 1 + Below(lines.size());
        const auto at = lines.begin() + static_cast<std::ptrdiff_t>(std::min(place, lines.size()));
        switch (Below(4)) {
        case 0:
            lines.insert(at, Line());
            break;
        case 1:
            if (at == lines.end())
                lines.push_back(Line());
            else
                *at = Line();
            break;
        case 2:
            if (at != lines.end())
                lines.erase(at);
            break;
        default:
            if (at != lines.end())
                *at += "&" + Pair(Any(Commands()));
        }
        std::string text;
        for (const std::string &line : lines)
            text += line + "\n";
        text.pop_back();
        return text;
    }

private:
    std::string Line()
    {
        if (Below(8) == 0)
            return std::string("Login?") + Any(kLogins);
        const Command &command = Any(Commands());
        std::string line = std::string(command.Name) + "?";
        for (const Key &key : command.Keys)
            // Required keys are rarely omitted.
            if (Below(key.IsRequired ? 16 : 2) != 0)
                line += std::string(key.Name) + "=" + Value(key) + "&";
        if (Below(8) == 0)
            line += Pair(Any(Commands()));
        if (command.Keys.empty() || line.back() != '&')
            return line;
        line.pop_back();
        return std::string(command.Name) == "SetUserImage" ? line + "\nabcdef" : line;
    }

    std::string Pair(const Command &command)
    {
        if (command.Keys.empty())
            return "Unknown=1";
        const Key &key = Any(command.Keys);
        return std::string(key.Name) + "=" + Value(key);
    }

    std::string Value(const Key &key)
    {
        if (Below(16) == 0)
            return Any(kTexts);
        switch (key.Is) {
        case Key::Kind::Text:
            return Below(16) == 0 ? std::string(key.Size + Below(3) - 1, '\'') : Any(kTexts);
        case Key::Kind::Date:
        case Key::Kind::Time:
            return Any(kTimes);
        case Key::Kind::Number:
            break;
        }
        return Any(kNumbers);
    }
};

} // namespace
} // namespace nimbra::fuzz

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t *data, std::size_t size,
                                               std::size_t maxSize, unsigned seed)
{
    using namespace nimbra::fuzz;
    constexpr std::size_t kMostLines = 24;
    const InputSize maximum = {maxSize, kMostLines};
    if (seed % 2 == 0)
        return Shorten(data, LLVMFuzzerMutate(data, size, maxSize), seed, maximum);
    const std::vector<std::string_view> lines =
        Split({reinterpret_cast<const char *>(data), size}, "\n");
    const std::string text = Maker(seed).Mutate({lines.begin(), lines.end()});
    const std::size_t count = std::min(text.size(), maxSize);
    std::memcpy(data, text.data(), count);
    return Shorten(data, count, seed, maximum);
}
