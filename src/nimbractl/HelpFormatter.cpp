#include "nimbractl/HelpFormatter.h"

#include "nimbractl/Terminal.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace nimbra::ctl {

namespace {

constexpr std::size_t kMostColumns = 100;
constexpr std::size_t kLeastColumns = 40;
constexpr std::size_t kNameColumns = 30;
constexpr std::size_t kExpandedIndent = 2;

std::size_t PageWidth()
{
    if (!IsOutputTerminal() && std::getenv("COLUMNS") == nullptr)
        return kMostColumns;
    return std::clamp(GetTerminalSize().Columns, kLeastColumns, kMostColumns);
}

/// Breaks a text into lines at its blanks; the lines after the first begin with `indent` blanks.
std::string Wrapped(const std::string &text, std::size_t width, std::size_t indent = 0)
{
    std::istringstream words(text);
    std::string result;
    std::size_t lineLength = 0;
    for (std::string word; words >> word; lineLength += word.size()) {
        if (!result.empty()) {
            const bool fits = lineLength + 1 + word.size() <= width;
            result += fits ? " " : "\n" + std::string(indent, ' ');
            lineLength = fits ? lineLength + 1 : indent;
        }
        result += word;
    }
    return result;
}

} // namespace

HelpFormatter::HelpFormatter() : width_(PageWidth())
{
    column_width(std::min(kNameColumns, width_ / 2));
}

std::string HelpFormatter::make_description(const CLI::App *app) const
{
    return Wrapped(app->get_description() + ".", width_) + "\n\n";
}

std::string HelpFormatter::make_footer(const CLI::App *app) const
{
    std::istringstream lines(app->get_footer());
    std::string text;
    for (std::string line; std::getline(lines, line);) {
        const std::size_t indent = std::min(line.find_first_not_of(' '), line.size());
        text += line.substr(0, indent) +
                Wrapped(line, width_ - indent, indent == 0 ? 0 : indent + 3) + "\n";
    }
    return text;
}

std::string HelpFormatter::make_subcommand(const CLI::App *sub) const
{
    const std::string all = sub->get_description();
    std::ostringstream out;
    CLI::detail::format_help(out, sub->get_name(),
                             Wrapped(all.substr(0, all.find(". ")), width_ - get_column_width()),
                             get_column_width());
    return out.str();
}

std::string HelpFormatter::make_expanded(const CLI::App *sub) const
{
    const auto children = sub->get_subcommands([](const CLI::App *) { return true; });
    std::string text;
    for (const CLI::App *child : children)
        text += (text.empty() ? "" : "\n") + make_expanded(child);
    if (!children.empty())
        return text;
    std::string name = sub->get_name();
    for (const CLI::App *parent = sub->get_parent(); parent->get_parent() != nullptr;
         parent = parent->get_parent())
        name = parent->get_name() + " " + name;
    // The parser indents what it formats.
    HelpFormatter indented(*this);
    indented.width_ -= kExpandedIndent;
    return name + indented.CLI::Formatter::make_expanded(sub).substr(sub->get_name().size());
}

std::string HelpFormatter::make_option_opts(const CLI::Option *option) const
{
    std::string text = CLI::Formatter::make_option_opts(option);
    if (!option->get_envname().empty())
        text += " (Env:" + option->get_envname() + ")";
    return text + (option->get_required() ? " (required)" : "");
}

std::string HelpFormatter::make_option_desc(const CLI::Option *option) const
{
    return Wrapped(option->get_description(), width_ - get_column_width());
}

} // namespace nimbra::ctl
