#include "simulator/scenario/Scenario.h"

#include <charconv>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <utility>

namespace nimbra::simulator {

namespace {

constexpr int kMaxCount = 1'000'000;

/// A kind of line: how it begins, and what may follow. Longer beginnings come first.
struct LineKind
{
    std::string_view Start;
    ScenarioAction Action;
    bool HasCount = false; ///< a number may follow at once: "<25 ..."
    bool HasText = false;  ///< the rest, after a blank, is the text
};

constexpr LineKind kLineKinds[] = {
    {.Start = ">file", .Action = ScenarioAction::SendFile, .HasText = true},
    {.Start = "<file", .Action = ScenarioAction::ExpectFile, .HasText = true},
    {.Start = "silence ", .Action = ScenarioAction::Silence, .HasCount = true},
    {.Start = "pause ", .Action = ScenarioAction::Pause, .HasCount = true},
    {.Start = "connect", .Action = ScenarioAction::Connect},
    {.Start = "=", .Action = ScenarioAction::Title, .HasText = true},
    {.Start = ":", .Action = ScenarioAction::Remark, .HasText = true},
    {.Start = ">", .Action = ScenarioAction::Send, .HasText = true},
    {.Start = "<", .Action = ScenarioAction::Expect, .HasCount = true, .HasText = true},
    {.Start = "$", .Action = ScenarioAction::Run, .HasText = true},
    {.Start = "|", .Action = ScenarioAction::ExpectOutput, .HasCount = true, .HasText = true},
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
std::optional<ScenarioLine> ParseRest(const LineKind &kind, std::string_view rest)
{
    ScenarioLine result;
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

std::optional<Scenario> ReadScenario(const std::string &path, std::string *error)
{
    std::ifstream file(path);
    if (!file) {
        *error = path + ": cannot be read";
        return std::nullopt;
    }
    Scenario scenario;
    scenario.Folder = std::filesystem::path(path).parent_path().string();
    int number = 0;
    for (std::string text; std::getline(file, text);) {
        ++number;
        if (text.empty() || text.front() == '#')
            continue;
        std::optional<ScenarioLine> line = ParseScenarioLine(text);
        if (!line) {
            *error = path + ":" + std::to_string(number) + ": not a line of a scenario: " + text;
            return std::nullopt;
        }
        line->Number = number;
        scenario.Lines.push_back(std::move(*line));
    }
    return scenario;
}

std::optional<ScenarioLine> ParseScenarioLine(const std::string &line)
{
    const std::string_view text = line;
    for (const LineKind &kind : kLineKinds) {
        if (text.starts_with(kind.Start))
            return ParseRest(kind, text.substr(kind.Start.size()));
    }
    return std::nullopt;
}

bool MatchScenarioText(const std::string &pattern, const std::string &text, std::string *shown)
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
        if (MatchScenarioText(rest, text.substr(end), &shownRest)) {
            *shown = text.substr(0, star) + (differs ? "**" : text.substr(star, end - star));
            *shown += shownRest;
            return true;
        }
    }
    return false;
}

} // namespace nimbra::simulator
