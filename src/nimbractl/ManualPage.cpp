#include "nimbractl/ManualPage.h"

#include <cstdio>
#include <string>

namespace nimbra::ctl {

namespace {

/// Escapes the characters that scdoc takes for markup.
std::string Escaped(const std::string &text)
{
    std::string result;
    for (const char c : text) {
        if (c == '_' || c == '*' || c == '\\')
            result += '\\';
        result += c;
    }
    return result;
}

std::string Sentence(const std::string &text)
{
    return Escaped(text) + (text.ends_with('.') ? "" : ".");
}

std::string OptionNames(const CLI::Option &option)
{
    std::string names;
    for (const std::string &name : option.get_snames())
        names += (names.empty() ? "*-" : ", *-") + Escaped(name) + "*";
    for (const std::string &name : option.get_lnames())
        names += (names.empty() ? "*--" : ", *--") + Escaped(name) + "*";
    const std::string &value = option.get_option_text();
    return names + (value.empty() ? "" : " _" + Escaped(value) + "_");
}

void PrintOptions(const CLI::App &app, const std::string &indent)
{
    for (const CLI::Option *option : app.get_options()) {
        if (!option->nonpositional() || (option == app.get_help_ptr() && !indent.empty()))
            continue;
        const std::string variable =
            option->get_envname().empty()
                ? ""
                : " Environment variable: *" + Escaped(option->get_envname()) + "*.";
        std::printf("%s%s\n%s\t%s%s\n\n", indent.c_str(), OptionNames(*option).c_str(),
                    indent.c_str(), Sentence(option->get_description()).c_str(), variable.c_str());
    }
}

/// Returns the paragraph of a command's help before the footer of all commands; empty without one.
std::string OwnFooter(const CLI::App &command)
{
    const std::string footer = command.get_footer();
    const std::size_t end = footer.find("\n\n");
    return end == std::string::npos ? "" : footer.substr(0, end);
}

void PrintCommands(const CLI::App &app, const std::string &prefix)
{
    for (const CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; })) {
        const std::string name = prefix + command->get_name();
        if (!command->get_subcommands([](const CLI::App *) { return true; }).empty()) {
            PrintCommands(*command, name + " ");
            continue;
        }
        std::string line = "*" + Escaped(name) + "*";
        for (const CLI::Option *argument : command->get_options(
                 [](const CLI::Option *option) { return option->get_positional(); })) {
            const std::string text = "_" + Escaped(argument->get_name(true)) + "_";
            line += argument->get_required() ? " " + text : " [" + text + "]";
        }
        std::printf("%s\n\t%s\n\n", line.c_str(), Sentence(command->get_description()).c_str());
        if (const std::string footer = OwnFooter(*command); !footer.empty())
            std::printf("\t%s\n\n", Escaped(footer).c_str());
        PrintOptions(*command, "\t");
    }
}

} // namespace

void PrintManualPage(const CLI::App &app)
{
    std::printf("# OPTIONS\n\n");
    PrintOptions(app, "");
    std::printf("# COMMANDS\n\n");
    PrintCommands(app, "");
}

} // namespace nimbra::ctl
