#include "panel-check/Report.h"

#include <algorithm>

namespace nimbra::check {

namespace {

constexpr std::size_t kStatusWidth = sizeof "warning ";

const char *NameOf(Outcome result)
{
    switch (result) {
    case Outcome::Ok:
        return "ok";
    case Outcome::Warning:
        return "warning";
    case Outcome::Failure:
        break;
    }
    return "fail";
}

std::string Printable(std::string text)
{
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return text;
}

/// A printable text as a JSON string.
std::string Quoted(const std::string &text)
{
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\')
            quoted += '\\';
        quoted += c;
    }
    return quoted + "\"";
}

std::string Counted(std::size_t count, const std::string &noun)
{
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

} // namespace

void Report::Ok(const std::string &subject, const std::string &text)
{
    Add(Outcome::Ok, subject, text, "");
}

void Report::Warn(const std::string &subject, const std::string &text, const std::string &action)
{
    Add(Outcome::Warning, subject, text, action);
}

void Report::Fail(const std::string &subject, const std::string &text, const std::string &action)
{
    Add(Outcome::Failure, subject, text, action);
}

bool Report::HasFailures() const
{
    return Count(Outcome::Failure) != 0;
}

std::string Report::ToText() const
{
    std::string text;
    for (const Finding &finding : findings_) {
        std::string line = NameOf(finding.Result);
        line.resize(kStatusWidth, ' ');
        line += finding.Subject + ": " + finding.Text;
        if (!finding.Action.empty())
            line += ". " + finding.Action;
        text += line + "\n";
    }
    return text + Counted(findings_.size(), "check") + ": " +
           Counted(Count(Outcome::Failure), "failure") + ", " +
           Counted(Count(Outcome::Warning), "warning") + "\n";
}

std::string Report::ToJson() const
{
    std::string text = "[";
    for (const Finding &finding : findings_) {
        text += text.size() == 1 ? "\n" : ",\n";
        text += " {\"status\": " + Quoted(NameOf(finding.Result)) +
                ", \"subject\": " + Quoted(finding.Subject) +
                ", \"finding\": " + Quoted(finding.Text) +
                ", \"action\": " + Quoted(finding.Action) + "}";
    }
    return text + "\n]\n";
}

void Report::Add(Outcome result, const std::string &subject, const std::string &text,
                 const std::string &action)
{
    findings_.push_back({result, Printable(subject), Printable(text), Printable(action)});
}

std::size_t Report::Count(Outcome result) const
{
    return static_cast<std::size_t>(
        std::count_if(findings_.begin(), findings_.end(),
                      [result](const Finding &finding) { return finding.Result == result; }));
}

} // namespace nimbra::check
