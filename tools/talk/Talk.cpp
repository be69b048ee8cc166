#include "talk/Talk.h"

#include <charconv>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <utility>

namespace nimbra {

namespace {

constexpr int kMaxCount = 1'000'000;

/// A kind of line: how it begins, and what may follow. More telling beginnings come first.
struct LineKind
{
    std::string_view Start;
    TalkAction Action;
    bool HasCount; ///< a number may follow at once: "<25 ..."
    bool HasText;  ///< the rest, after a blank, is the text
};

constexpr LineKind kLineKinds[] = {
    {">file", TalkAction::SendFile, false, true},   {"<file", TalkAction::ExpectFile, false, true},
    {"silence ", TalkAction::Silence, true, false}, {"pause ", TalkAction::Pause, true, false},
    {"connect", TalkAction::Connect, false, false}, {"=", TalkAction::Title, false, true},
    {":", TalkAction::Remark, false, true},         {">", TalkAction::Send, false, true},
    {"<", TalkAction::Expect, true, true},          {"$", TalkAction::Run, false, true},
    {"|", TalkAction::ExpectOutput, true, true},
};

/// Takes a whole number from 1 to kMaxCount off the front of `*rest`; false when it holds another.
bool TakeCount(std::string_view *rest, int *count)
{
    const char *begin = rest->data();
    const auto [end, failure] = std::from_chars(begin, begin + rest->size(), *count);
    if (failure == std::errc::result_out_of_range)
        return false;
    rest->remove_prefix(static_cast<std::size_t>(end - begin));
    return *count >= 1 && *count <= kMaxCount;
}

/// Reads what follows the beginning of a line of `kind`.
std::optional<TalkLine> ParseRest(const LineKind &kind, std::string_view rest)
{
    TalkLine result;
    result.Action = kind.Action;
    if (kind.HasCount && !TakeCount(&rest, &result.Count))
        return std::nullopt;
    if (rest.empty())
        return result;
    if (!kind.HasText || rest.front() != ' ')
        return std::nullopt;
    result.Text = rest.substr(1);
    return result;
}

} // namespace

std::optional<Talk> ReadTalk(const std::string &path, std::string *error)
{
    std::ifstream file(path);
    if (!file) {
        *error = path + ": cannot be read";
        return std::nullopt;
    }
    Talk talk;
    talk.Folder = std::filesystem::path(path).parent_path().string();
    int number = 0;
    for (std::string text; std::getline(file, text);) {
        ++number;
        if (text.empty() || text.front() == '#')
            continue;
        std::optional<TalkLine> line = ParseTalkLine(text);
        if (!line) {
            *error = path + ":" + std::to_string(number) + ": not a line of a talk: " + text;
            return std::nullopt;
        }
        line->Number = number;
        talk.Lines.push_back(std::move(*line));
    }
    return talk;
}

std::optional<TalkLine> ParseTalkLine(const std::string &line)
{
    const std::string_view text = line;
    for (const LineKind &kind : kLineKinds) {
        if (text.starts_with(kind.Start))
            return ParseRest(kind, text.substr(kind.Start.size()));
    }
    return std::nullopt;
}

bool MatchTalkText(const std::string &pattern, const std::string &text, std::string *shown)
{
    const std::size_t star = pattern.find('*');
    if (star == std::string::npos) {
        *shown = text;
        return pattern == text;
    }
    if (text.compare(0, star, pattern, 0, star) != 0)
        return false;
    const bool differs = pattern.compare(star, 2, "**") == 0;
    const std::string rest = pattern.substr(star + (differs ? 2 : 1));
    for (std::size_t end = star; end <= text.size(); ++end) {
        std::string shownRest;
        if (MatchTalkText(rest, text.substr(end), &shownRest)) {
            *shown = text.substr(0, star) + (differs ? "**" : text.substr(star, end - star));
            *shown += shownRest;
            return true;
        }
    }
    return false;
}

} // namespace nimbra
