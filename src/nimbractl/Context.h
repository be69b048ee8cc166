#pragma once

#include "nimbractl/Errors.h"
#include "nimbractl/PanelSession.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace nimbra::ctl {

/// What the commands work with.
struct Context
{
    Settings Options;
    PanelSession Panel{Options};
    /// What the command line asks for; set while it is parsed.
    std::function<void()> Action;
};

/// Adds a command with options of its own, kept in an `Options`, that does `run`.
template <typename Options>
struct Command
{
    CLI::App *App;
    Options *Into;
};
template <typename Options>
Command<Options> AddCommand(CLI::App &parent, const std::string &name, const std::string &help,
                            Context &context, void (*run)(Context &, const Options &))
{
    const auto options = std::make_shared<Options>();
    CLI::App *app = parent.add_subcommand(name, help);
    app->callback([&context, options, run] {
        context.Action = [&context, options, run] { run(context, *options); };
    });
    return {app, options.get()};
}

/// Adds a command that holds others.
CLI::App &AddGroup(CLI::App &parent, const std::string &name, const std::string &help);

/// Options of lists.
void AddPaging(CLI::App &app, client::ListOptions &options);

/// Writes the rows of a list command; throws Refused when there is none.
void WriteList(Context &context, const client::Request &request,
               const client::ListOptions &options = {}, const ListStyle &style = {},
               const std::function<void(client::Record &)> &edit = {});

/// Says that something is done: a sentence for people, a record with the number for programs.
void WriteDone(Context &context, const std::string &sentence, const char *key, int number);

// The families of commands.
void AddDiscoverCommand(CLI::App &app, Context &context);
void AddDoorCommands(CLI::App &app, Context &context);
void AddOutputCommands(CLI::App &app, Context &context);
void AddEventCommands(CLI::App &app, Context &context);
void AddUserCommands(CLI::App &app, Context &context);
void AddPhotoCommands(CLI::App &users, Context &context);
void AddCardCommands(CLI::App &app, Context &context);
void AddPanelCommands(CLI::App &app, Context &context);
void AddVideoCommands(CLI::App &app, Context &context);
void AddRawCommand(CLI::App &app, Context &context);
/// All of the above.
void AddAllCommands(CLI::App &app, Context &context);
/// Sets up what all command lines have in common; before commands are added.
void PrepareApp(CLI::App &app, const std::string &footer);

/// Tells more about a command behind its options, before what is said of all commands.
void AddFooter(CLI::App &app, const std::string &text);

/// Adds an option that takes one of some words.
template <typename Value>
CLI::Option *AddChoice(CLI::App &app, const std::string &name, Value &into,
                       const std::map<std::string, Value> &choices, const std::string &help)
{
    return app.add_option_function<std::string>(
        name,
        [&into, &choices, name](const std::string &word) {
            const auto found = choices.find(word);
            if (found == choices.end())
                throw CLI::ValidationError(
                    name, "\"" + word + "\" is none of " +
                              CLI::detail::join(
                                  choices, [](const auto &choice) { return choice.first; }, ", "));
            into = found->second;
        },
        help);
}

/// The words for SelectType, the two kinds of access levels.
[[nodiscard]] const std::map<std::string, int> &LevelKinds();

/// Adds a number that stands without an option.
CLI::Option *AddNumber(CLI::App &app, const std::string &name, int &into, const std::string &help);

/// The option for the form of the output.
void AddOutputOption(CLI::App &app, Settings &settings);

/// Parses the words of a command line, its program's name left out, does what they ask for, and
/// says on standard error what is in the way. Returns what the program would end with.
[[nodiscard]] int RunCommandLine(CLI::App &app, Context &context, std::vector<std::string> words);

} // namespace nimbra::ctl
