#include "nimbractl/Completion.h"

#include "nimbractl/Errors.h"
#include "nimbractl/Panels.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>

namespace nimbra::ctl {

namespace {

/// The place in the command line where the last word is.
struct Position
{
    const CLI::App *App;
    const CLI::Option *Pending = nullptr; ///< an option whose value is next
    std::size_t Arguments = 0;            ///< arguments of the command before
};

bool IsOption(const std::string &word)
{
    return word.size() > 1 && word[0] == '-';
}

const CLI::Option *FindOption(const CLI::App *app, const std::string &name)
{
    for (; app != nullptr; app = app->get_parent())
        if (const CLI::Option *option = app->get_option_no_throw(name); option != nullptr)
            return option;
    return nullptr;
}

const CLI::App *FindCommand(const CLI::App *app, const std::string &name)
{
    for (const CLI::App *command : app->get_subcommands([](const CLI::App *) { return true; }))
        if (command->get_name() == name)
            return command;
    return nullptr;
}

Position FindPosition(const CLI::App &app, const std::vector<std::string> &words)
{
    Position position{&app};
    for (std::size_t i = 0; i + 1 < words.size(); ++i) {
        const std::string &word = words[i];
        if (position.Pending != nullptr) {
            position.Pending = nullptr;
        } else if (IsOption(word)) {
            const CLI::Option *option = FindOption(position.App, word);
            if (option != nullptr && option->get_type_size() > 0)
                position.Pending = option;
        } else if (const CLI::App *command = FindCommand(position.App, word); command != nullptr) {
            position.App = command;
        } else {
            ++position.Arguments;
        }
    }
    return position;
}

/// Adds the names of the configuration file's panels. A file that cannot be read has none.
void AddPanelNames(Completion *completion)
{
    try {
        for (const ConfiguredPanel &panel : ReadPanels(PanelsFile()))
            completion->Candidates.push_back(panel.Name);
    } catch (const LocalFailure &) {
        return;
    }
}

/// Adds the values that an option or an argument takes, by its text in the help: "json|csv",
/// "FILE".
void AddValues(const CLI::Option *option, Completion *completion)
{
    const std::string &text = option->get_option_text();
    const std::string word = text.substr(0, text.find(' '));
    completion->IsFile = word == "FILE";
    if (word.starts_with("PANEL"))
        AddPanelNames(completion);
    completion->IsHost = word == "HOST";
    const bool isChoice =
        std::none_of(word.begin(), word.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
    for (const std::string &value : CLI::detail::split(word, '|'))
        if (isChoice && !value.empty())
            completion->Candidates.push_back(value);
}

void AddOptionNames(const CLI::App *app, Completion *completion)
{
    for (; app != nullptr; app = app->get_parent())
        for (const CLI::Option *option : app->get_options()) {
            for (const std::string &name : option->get_lnames())
                completion->Candidates.push_back("--" + name);
            for (const std::string &name : option->get_snames())
                completion->Candidates.push_back("-" + name);
        }
    // Each command has a --help of its own.
    std::sort(completion->Candidates.begin(), completion->Candidates.end());
    completion->Candidates.erase(
        std::unique(completion->Candidates.begin(), completion->Candidates.end()),
        completion->Candidates.end());
}

void AddArgumentsAndCommands(const Position &position, Completion *completion)
{
    const auto arguments = position.App->get_options(
        [](const CLI::Option *option) { return option->get_positional(); });
    if (position.Arguments < arguments.size())
        AddValues(arguments[position.Arguments], completion);
    for (const CLI::App *command :
         position.App->get_subcommands([](const CLI::App *) { return true; }))
        completion->Candidates.push_back(command->get_name());
}

} // namespace

Completion Complete(const CLI::App &app, const std::vector<std::string> &words)
{
    const Position position = FindPosition(app, words);
    std::string begun = words.back();
    std::string kept; // of the last word, before what is completed
    Completion completion;
    const std::size_t equals = begun.find('=');
    const CLI::Option *option = position.Pending;
    if (option != nullptr) {
        AddValues(option, &completion);
    } else if (IsOption(begun) && equals != std::string::npos) {
        kept = begun.substr(0, equals + 1);
        option = FindOption(position.App, begun.substr(0, equals));
        begun.erase(0, equals + 1);
        if (option != nullptr)
            AddValues(option, &completion);
    } else if (!begun.empty() && begun[0] == '-') {
        AddOptionNames(position.App, &completion);
    } else {
        AddArgumentsAndCommands(position, &completion);
    }
    // Of several values, the last one is completed.
    if (option != nullptr && option->get_option_text().ends_with(",...")) {
        const std::size_t end = begun.rfind(',') + 1; // 0 without a comma
        kept += begun.substr(0, end);
        begun.erase(0, end);
    }
    std::vector<std::string> fitting;
    for (const std::string &candidate : completion.Candidates)
        if (candidate.starts_with(begun))
            fitting.push_back(kept + candidate);
    completion.Candidates = fitting;
    return completion;
}

std::vector<std::string> CompleteFile(const std::string &begun)
{
    const std::string directory = begun.substr(0, begun.find_last_of('/') + 1);
    std::vector<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator file(directory.empty() ? "." : directory, error), end;
         !error && file != end; file.increment(error)) {
        const std::string name = directory + file->path().filename().string();
        std::error_code ignored;
        if (name.starts_with(begun))
            names.push_back(name + (file->is_directory(ignored) ? "/" : ""));
    }
    std::sort(names.begin(), names.end());
    return names;
}

void PrintCompletion(const CLI::App &app, const std::vector<std::string> &words)
{
    const Completion completion =
        Complete(app, words.empty() ? std::vector<std::string>{""} : words);
    for (const std::string &candidate : completion.Candidates)
        std::printf("%s\n", candidate.c_str());
    if (completion.IsFile)
        std::printf(":files\n");
    if (completion.IsHost)
        std::printf(":hosts\n");
}

} // namespace nimbra::ctl
