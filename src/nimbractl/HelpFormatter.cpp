#include "nimbractl/HelpFormatter.h"

#include <sstream>

namespace nimbra::ctl {

namespace {

constexpr std::size_t kPageWidth = 100;
constexpr std::size_t kFirstColumn = 30;

/// Breaks a text into lines at its blanks.
std::string Wrapped(const std::string &text, std::size_t width)
{
    std::istringstream words(text);
    std::string result;
    std::size_t lineLength = 0;
    for (std::string word; words >> word; lineLength += word.size()) {
        if (!result.empty()) {
            const bool fits = lineLength + 1 + word.size() <= width;
            result += fits ? ' ' : '\n';
            lineLength = fits ? lineLength + 1 : 0;
        }
        result += word;
    }
    return result;
}

} // namespace

HelpFormatter::HelpFormatter()
{
    column_width(kFirstColumn);
}

std::string HelpFormatter::make_description(const CLI::App *app) const
{
    return Wrapped(app->get_description(), kPageWidth) + ".\n\n";
}

std::string HelpFormatter::make_subcommand(const CLI::App *sub) const
{
    const std::string all = sub->get_description();
    std::ostringstream out;
    CLI::detail::format_help(out, sub->get_name(),
                             Wrapped(all.substr(0, all.find(". ")), kPageWidth - kFirstColumn),
                             kFirstColumn);
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
    return name + CLI::Formatter::make_expanded(sub).substr(sub->get_name().size());
}

std::string HelpFormatter::make_option_desc(const CLI::Option *option) const
{
    return Wrapped(option->get_description(), kPageWidth - kFirstColumn);
}

} // namespace nimbra::ctl
