// Doors, and auxiliary outputs, which are switched in the same way.

#include "nimbractl/Context.h"

#include <array>

#include <nimbra-client/Request.h>

namespace nimbra::ctl {

namespace {

using client::FieldKind;
using client::Request;

struct DoorFilter
{
    std::string Name;
    client::ListOptions Paging;
};

struct NumberArgument
{
    int Number = 0;
};

/// The commands and the names of the two kinds of relays.
struct Switched
{
    const char *GetWord;
    const char *SetWord;
    const char *Done;
    std::array<client::Field, 2> Fields;
    StatusWords Words;
};
constexpr Switched kLocks{"GetDoorLock",
                          "SetDoorLock",
                          "The lock is switched",
                          {{{"DoorNo", FieldKind::Number}, {"Status", FieldKind::Number}}},
                          kLockWords};
constexpr Switched kOutputs{"GetAuxOutput",
                            "SetAuxOutput",
                            "The output is switched",
                            {{{"OutputNo", FieldKind::Number}, {"Status", FieldKind::Number}}},
                            kSwitchWords};

void ShowStatus(Context &context, const Switched &what, int number)
{
    const client::Response response =
        context.Panel.Execute(Request(what.GetWord).Number("Port", number));
    client::Record record(what.Fields, "");
    record.Set(what.Fields[0].Name, std::to_string(number));
    record.Set("Status", response.Header.Text("Status"));
    WriteRecord(context.Options.Output, record, what.Words);
}

/// The panel reports success for every number: a request before shows whether there is such a door,
/// and a request after shows its new state.
void Switch(Context &context, const Switched &what, int number, int control)
{
    context.Panel.Execute(Request(what.GetWord).Number("Port", number));
    context.Panel.Execute(Request(what.SetWord).Number("Port", number).Number("Control", control));
    ShowChange(what.Done, [&] { ShowStatus(context, what, number); });
}

template <const Switched &what, int control>
void SwitchTo(Context &context, const NumberArgument &argument)
{
    Switch(context, what, argument.Number, control);
}

CLI::App &AddNumberCommand(CLI::App &parent, const char *name, const char *help,
                           const char *numberHelp, Context &context,
                           void (*run)(Context &, const NumberArgument &),
                           PanelCount panels = PanelCount::One)
{
    const auto command = AddCommand<NumberArgument>(parent, name, help, context, run, panels);
    AddNumber(*command.App, "number", command.Into->Number, numberHelp)->required();
    return *command.App;
}

void ListDoors(Context &context, const DoorFilter &filter)
{
    WriteList(context, Request("GetDoorInfoEx").Text("Name", filter.Name), filter.Paging,
              {kLockWords});
}

void ShowDoor(Context &context, const NumberArgument &argument)
{
    const auto response =
        context.Panel.Execute(Request("GetDoorInfo").Number("DoorNo", argument.Number));
    WriteRecord(context.Options.Output, response.Header, kLockWords);
}

} // namespace

void AddDoorCommands(CLI::App &app, Context &context)
{
    CLI::App &doors = AddGroup(app, "doors", "Doors and their locks");
    const auto list = AddReadCommand<DoorFilter>(
        doors, "list", "List the enabled doors; Status is 1 for unlocked, 0 for locked", context,
        ListDoors);
    list.App
        ->add_option("--name", list.Into->Name,
                     "Only doors with this text in their name; % is any text, _ any character")
        ->option_text("TEXT");
    AddPaging(*list.App, list.Into->Paging);
    const char *const kDoorHelp = "The door's number";
    AddViewOptions(AddNumberCommand(doors, "show", "Show a door", kDoorHelp, context, ShowDoor,
                                    PanelCount::Several),
                   context.Options);
    AddNumberCommand(doors, "lock", "Lock a door and show its state", kDoorHelp, context,
                     SwitchTo<kLocks, 0>);
    AddNumberCommand(doors, "unlock", "Unlock a door until it is locked again", kDoorHelp, context,
                     SwitchTo<kLocks, 1>);
    AddNumberCommand(doors, "hold",
                     "Unlock a door for a moment, to let a person in; the panel locks it "
                     "again by itself",
                     kDoorHelp, context, SwitchTo<kLocks, 2>);
    AddWatchCommand(doors, context);
}

void AddOutputCommands(CLI::App &app, Context &context)
{
    CLI::App &outputs = AddGroup(app, "outputs", "Auxiliary outputs");
    const char *const kOutputHelp = "The output's number";
    CLI::App &get = AddNumberCommand(
        outputs, "get", "Show whether an output is on (1) or off (0)", kOutputHelp, context,
        [](Context &its, const NumberArgument &argument) {
            ShowStatus(its, kOutputs, argument.Number);
        },
        PanelCount::Several);
    AddViewOptions(get, context.Options);
    AddNumberCommand(outputs, "on", "Switch an output on", kOutputHelp, context,
                     SwitchTo<kOutputs, 1>);
    AddNumberCommand(outputs, "off", "Switch an output off", kOutputHelp, context,
                     SwitchTo<kOutputs, 0>);
}

} // namespace nimbra::ctl
