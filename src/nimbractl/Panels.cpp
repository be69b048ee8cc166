#include "nimbractl/Panels.h"

#include "nimbractl/Errors.h"
#include "nimbractl/Fields.h"
#include "nimbractl/UserDirectory.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <memory>
#include <utility>

namespace nimbra::ctl {

namespace {

using Values = std::map<std::string, std::string>;

/// The options that can be set in the file.
constexpr std::array<const char *, 6> kSettings = {"host",          "port",    "user",
                                                   "password-file", "timeout", "clock-offset"};

/// Reads sections and values; a value is the rest of its line.
class PanelsFormat : public CLI::ConfigBase
{
public:
    PanelsFormat()
    {
        // A name may hold dots, and a value blanks, commas and brackets.
        parentSeparatorChar = '\0';
        arrayBounds('\1', '\1')->arrayDelimiter('\1');
    }
};

/// Returns what is wrong with a value; an empty text when nothing is. Removes leading zeros.
std::string FindFaultOf(const std::string &setting, std::string &value)
{
    if (value.empty())
        return "the value is empty";
    if (setting == "port")
        return IsNumber(1, 65535)(value);
    if (setting == "timeout")
        return IsNumber(1, 3600)(value);
    if (setting == "clock-offset" && !ParseClockOffset(value))
        return "\"" + value + "\" is no offset such as +02:00";
    return "";
}

std::string SettingNames()
{
    std::string names;
    for (const char *setting : kSettings)
        names += (names.empty() ? "" : ", ") + std::string(setting);
    return names;
}

[[noreturn]] void Fail(const std::string &file, const std::string &panel, const std::string &fault)
{
    throw LocalFailure(file + (panel.empty() ? "" : ", [" + panel + "]") + ": " + fault + ".");
}

/// Adds the value of one line.
void TakeValue(const std::string &file, const std::string &panel, const CLI::ConfigItem &item,
               Values *values)
{
    if (std::find(kSettings.begin(), kSettings.end(), item.name) == kSettings.end())
        Fail(file, panel, "there is no setting \"" + item.name + "\"; they are " + SettingNames());
    // Lines that follow each other are one item.
    if (item.inputs.size() > 1)
        Fail(file, panel, item.name + " is there twice");
    std::string value = item.inputs.empty() ? "" : item.inputs[0];
    if (const std::string fault = FindFaultOf(item.name, value); !fault.empty())
        Fail(file, panel, item.name + ": " + fault);
    // The file may be anywhere, so a relative name begins at the directory of the file.
    if (item.name == "password-file")
        value = (std::filesystem::path(file).parent_path() / value).string();
    if (!values->emplace(item.name, value).second)
        Fail(file, panel, item.name + " is there twice");
}

/// Throws WrongUsage when the command line names panels in a way that makes no sense.
void CheckSelection(const Context &context, const std::set<std::string> &given)
{
    if (given.contains("--host"))
        throw WrongUsage("Name the panel with --host or with --panel, not with both.");
    if (context.IsAllPanels && !context.PanelNames.empty())
        throw WrongUsage("Give --panel or --all-panels, not both.");
}

/// The options of the command line itself, without those that the environment sets.
std::set<std::string> GivenOptions(const CLI::App &app)
{
    std::set<std::string> names;
    for (const CLI::Option *option : app.parse_order())
        names.insert(option->get_name());
    return names;
}

/// Returns the panels that the command line names.
std::vector<ConfiguredPanel> NamedPanels(const Context &context)
{
    const std::string file = PanelsFile();
    std::vector<ConfiguredPanel> all = ReadPanels(file);
    if (context.IsAllPanels) {
        if (all.empty())
            throw WrongUsage(file + " names no panel.");
        return all;
    }
    std::vector<ConfiguredPanel> named;
    for (const std::string &name : context.PanelNames) {
        const auto found =
            std::find_if(all.begin(), all.end(),
                         [&name](const ConfiguredPanel &panel) { return panel.Name == name; });
        if (found == all.end()) {
            std::string names;
            for (const ConfiguredPanel &panel : all)
                names += (names.empty() ? "" : ", ") + panel.Name;
            throw WrongUsage("There is no panel \"" + name + "\" in " + file +
                             (names.empty() ? "." : "; the panels are " + names + "."));
        }
        named.push_back(*found);
    }
    return named;
}

/// Runs a command on one panel after another. Returns the status of the first that failed.
int RunOnPanels(Context &context, const std::vector<ConfiguredPanel> &panels,
                const std::set<std::string> &given, const std::function<int()> &command)
{
    const Settings before = context.Options;
    JoinedList joined;
    int status = kDone;
    for (const ConfiguredPanel &panel : panels) {
        context.Options = before;
        ApplyPanel(panel, given, context.Options);
        context.Options.Output.Joined = &joined;
        joined.SetPanel(panel.Name);
        context.Panel.Close();
        const int result = RunAndReport(context, command);
        status = status == kDone ? result : status;
        if (result == kInterrupted)
            break;
    }
    context.Options = before;
    joined.End();
    return status;
}

void SelectPanels(const CLI::App &app, Context &context)
{
    if (context.PanelNames.empty() && !context.IsAllPanels)
        return;
    const std::set<std::string> given = GivenOptions(app);
    CheckSelection(context, given);
    const std::vector<ConfiguredPanel> panels = NamedPanels(context);
    if (!context.IsAllPanels && panels.size() == 1) {
        ApplyPanel(panels[0], given, context.Options);
        return;
    }
    if (!context.MayTakePanels)
        throw WrongUsage("This command takes one panel at a time: name one with --panel.");
    context.Action = [&context, panels, given, command = context.Action] {
        return RunOnPanels(context, panels, given, command);
    };
}

} // namespace

std::string PanelsFile()
{
    const std::filesystem::path directory = UserDirectory("XDG_CONFIG_HOME", ".config");
    return directory.empty() ? "" : (directory / "config").string();
}

std::vector<ConfiguredPanel> ReadPanels(const std::string &file)
{
    std::ifstream input(file);
    const std::vector<CLI::ConfigItem> items = PanelsFormat().from_config(input);
    if (!input.is_open() || input.bad())
        throw LocalFailure(file.empty() ? "There is no file of panels: neither XDG_CONFIG_HOME nor "
                                          "HOME names a directory."
                                        : "Cannot read " + file + ".");
    Values common;
    std::vector<ConfiguredPanel> panels;
    for (const CLI::ConfigItem &item : items) {
        if (item.parents.empty()) {
            TakeValue(file, "", item, &common);
            continue;
        }
        const std::string &name = item.parents[0];
        if (name.find(',') != std::string::npos)
            Fail(file, name, "a panel's name cannot hold a comma");
        auto panel = std::find_if(panels.begin(), panels.end(),
                                  [&name](const auto &known) { return known.Name == name; });
        if (panel == panels.end())
            panel = panels.insert(panel, {name, {}});
        if (item.name != "++" && item.name != "--")
            TakeValue(file, name, item, &panel->Values);
    }
    for (ConfiguredPanel &panel : panels) {
        panel.Values.insert(common.begin(), common.end());
        if (!panel.Values.contains("host"))
            Fail(file, panel.Name, "the host is missing");
    }
    return panels;
}

void ApplyPanel(const ConfiguredPanel &panel, const std::set<std::string> &given,
                Settings &settings)
{
    settings.Panel = panel.Name;
    const auto value = [&panel, &given](const std::string &setting) -> const std::string * {
        const auto found = panel.Values.find(setting);
        return found == panel.Values.end() || given.contains("--" + setting) ? nullptr
                                                                             : &found->second;
    };
    for (const auto &[setting, text] : {std::pair{"host", &settings.Host},
                                        {"user", &settings.User},
                                        {"clock-offset", &settings.ClockOffset}})
        if (const std::string *found = value(setting); found != nullptr)
            *text = *found;
    for (const auto &[setting, number] :
         {std::pair{"port", &settings.Port}, {"timeout", &settings.TimeoutSeconds}})
        if (const std::string *found = value(setting); found != nullptr)
            *number = std::stoi(*found);
    if (const std::string *found = value("password-file"); found != nullptr) {
        settings.PasswordFile = *found;
        settings.MustPasswordFileBePrivate = true;
    }
}

void AddPanelOptions(CLI::App &app, Context &context)
{
    app.add_option_function<std::string>(
           "--panel",
           [&context](const std::string &names) {
               context.PanelNames = CLI::detail::split(names, ',');
           },
           "The panel of this name in the configuration file; several for commands that only read")
        ->option_text("PANEL,...");
    app.add_flag("--all-panels", context.IsAllPanels,
                 "All panels of that file, for commands that only read");
    // After the callback of the command, which sets the action.
    app.callback([&app, &context] { SelectPanels(app, context); });
}

} // namespace nimbra::ctl
