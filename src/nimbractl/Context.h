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

/// The state that all commands share.
struct Context
{
    Settings Options;
    PanelSession Panel{Options};
    /// The command of the command line, which returns the exit status; set by the parser.
    std::function<int()> Action;
    /// Whether that command may run on several panels: it reads only, and it ends.
    bool MayTakePanels = false;
    /// The panels of the configuration file that the command line names.
    std::vector<std::string> PanelNames;
    bool IsAllPanels = false;
    /// The present line of a script that a shell reads; 0 without a script.
    int ScriptLine = 0;
};

/// A command of the parser and its own options.
template <typename Options>
struct Command
{
    CLI::App *App;
    Options *Into;
};

/// The panels that a command takes at a time.
enum class PanelCount
{
    One,
    Several
};

/// Adds a command that runs `run` with options of its own.
template <typename Options>
Command<Options> AddCommand(CLI::App &parent, const std::string &name, const std::string &help,
                            Context &context, void (*run)(Context &, const Options &),
                            PanelCount panels = PanelCount::One)
{
    const auto options = std::make_shared<Options>();
    CLI::App *app = parent.add_subcommand(name, help);
    app->callback([&context, options, run, panels] {
        context.Action = [&context, options, run] {
            run(context, *options);
            return static_cast<int>(kDone);
        };
        context.MayTakePanels = panels == PanelCount::Several;
    });
    return {app, options.get()};
}

/// Adds the options of a command that shows records and changes nothing: --fields and --wide.
void AddViewOptions(CLI::App &app, Settings &settings);
/// Adds --wide alone, for a command that shows tables with different fields.
void AddWideOption(CLI::App &app, Settings &settings);

/// Adds a command that shows records, changes nothing, and ends without Ctrl-C.
template <typename Options>
Command<Options> AddReadCommand(CLI::App &parent, const std::string &name, const std::string &help,
                                Context &context, void (*run)(Context &, const Options &))
{
    const auto command = AddCommand<Options>(parent, name, help, context, run, PanelCount::Several);
    AddViewOptions(*command.App, context.Options);
    return command;
}

/// Adds a command that holds other commands.
CLI::App &AddGroup(CLI::App &parent, const std::string &name, const std::string &help);

/// Adds the options of a list command that returns pages.
void AddPaging(CLI::App &app, client::ListOptions &options);

/// What WriteList does with each row of a list.
struct RowRules
{
    /// Whether the row is shown; all rows without it. Offset and limit count the rows that are.
    std::function<bool(const client::Record &)> IsShown;
    /// Changes the row before it is shown.
    std::function<void(client::Record &)> Edit;
};

/// Writes the rows of a list command. Throws Refused when there is none, after the empty list.
/// Returns false when the limit may have left out rows.
bool WriteList(Context &context, const client::Request &request,
               const client::ListOptions &options = {}, const ListStyle &style = {},
               const RowRules &rules = {});

/// Reports that something is done: as a sentence in a table, else as a record.
void WriteDone(Context &context, const std::string &sentence, const client::Record &record);
/// The same with a record of a result and the number of what was changed.
void WriteDone(Context &context, const std::string &sentence, const char *key, int number);

/// Runs `show`, which reads from the panel what a change has made and writes it. The change is
/// done: when the panel does not show it, this is reported after the sentence `done`, and is no
/// failure.
void ShowChange(const std::string &done, const std::function<void()> &show);

/// Writes a sentence to standard error.
void WriteNote(const std::string &sentence);
/// The same for an error, with the line of the script.
void WriteError(const Context &context, const std::string &sentence);

// The families of commands.
void AddDiscoverCommand(CLI::App &app, Context &context);
void AddDoorCommands(CLI::App &app, Context &context);
void AddOutputCommands(CLI::App &app, Context &context);
void AddEventCommands(CLI::App &app, Context &context);
void AddWatchCommand(CLI::App &doors, Context &context);
void AddUserCommands(CLI::App &app, Context &context);
void AddPhotoCommands(CLI::App &users, Context &context);
void AddCardCommands(CLI::App &app, Context &context);
void AddCardImport(CLI::App &cards, Context &context);
void AddPanelCommands(CLI::App &app, Context &context);
void AddVideoCommands(CLI::App &app, Context &context);
void AddRawCommand(CLI::App &app, Context &context);
/// All of the above.
void AddAllCommands(CLI::App &app, Context &context);

/// Sets what all command lines have in common. To be called before commands are added.
void PrepareApp(CLI::App &app, const std::string &footer);

/// Adds a paragraph to a command's help, before the footer of all commands.
void AddFooter(CLI::App &app, const std::string &text);

/// Adds an option that takes one of the words of `choices`, which must outlive it. The words are
/// the option's text in the help and its values in the completion.
template <typename Value>
CLI::Option *AddChoice(CLI::App &app, const std::string &name, Value &into,
                       const std::map<std::string, Value> &choices, const std::string &help)
{
    const auto words = [&choices](const std::string &separator) {
        return CLI::detail::join(
            choices, [](const auto &choice) { return choice.first; }, separator);
    };
    const auto choose = [&into, &choices, name, words](const std::string &word) {
        const auto found = choices.find(word);
        if (found == choices.end())
            throw CLI::ValidationError(name, "\"" + word + "\" is none of " + words(", "));
        into = found->second;
    };
    return app.add_option_function<std::string>(name, choose, help)->option_text(words("|"));
}

/// The words for SelectType, the two kinds of access levels.
[[nodiscard]] const std::map<std::string, int> &LevelKinds();

/// Adds an option, or an argument, that takes a whole number.
CLI::Option *AddNumber(CLI::App &app, const std::string &name, int &into, const std::string &help);

/// Adds the option for the form of the output.
void AddOutputOption(CLI::App &app, Settings &settings);

/// Runs a command, and writes an error to standard error. Returns the exit status.
[[nodiscard]] int RunAndReport(const Context &context, const std::function<int()> &command);

/// Parses the words of a command line without the program's name, runs the command, and writes an
/// error to standard error. Returns the exit status of the program.
[[nodiscard]] int RunCommandLine(CLI::App &app, Context &context, std::vector<std::string> words);

} // namespace nimbra::ctl
