// Doors, and the auxiliary outputs, which are switched in the same way.

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

struct Place
{
    int Number = 0;
};

/// What the panel calls the two kinds of things that it switches.
struct Switched
{
    const char *GetWord;
    const char *SetWord;
    std::array<client::Field, 2> Fields;
    StatusWords Words;
};
constexpr Switched kLocks{"GetDoorLock",
                          "SetDoorLock",
                          {{{"DoorNo", FieldKind::Number}, {"Status", FieldKind::Number}}},
                          kLockWords};
constexpr Switched kOutputs{"GetAuxOutput",
                            "SetAuxOutput",
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

/// The panel says yes to every number: whether there is such a door is asked before, and what
/// became of it behind.
void Switch(Context &context, const Switched &what, int number, int control)
{
    context.Panel.Execute(Request(what.GetWord).Number("Port", number));
    context.Panel.Execute(Request(what.SetWord).Number("Port", number).Number("Control", control));
    ShowStatus(context, what, number);
}

template <const Switched &what, int control>
void SwitchTo(Context &context, const Place &place)
{
    Switch(context, what, place.Number, control);
}

void AddPlaceCommand(CLI::App &parent, const char *name, const char *help, const char *placeHelp,
                     Context &context, void (*run)(Context &, const Place &))
{
    const auto command = AddCommand<Place>(parent, name, help, context, run);
    AddNumber(*command.App, "number", command.Into->Number, placeHelp)->required();
}

void ListDoors(Context &context, const DoorFilter &filter)
{
    WriteList(context, Request("GetDoorInfoEx").Text("Name", filter.Name), filter.Paging,
              {kLockWords});
}

void ShowDoor(Context &context, const Place &place)
{
    const auto response =
        context.Panel.Execute(Request("GetDoorInfo").Number("DoorNo", place.Number));
    WriteRecord(context.Options.Output, response.Header, kLockWords);
}

} // namespace

void AddDoorCommands(CLI::App &app, Context &context)
{
    CLI::App &doors = AddGroup(app, "doors", "Doors and their locks");
    const auto list = AddCommand<DoorFilter>(
        doors, "list", "List the enabled doors; Status is 1 for unlocked, 0 for locked", context,
        ListDoors);
    list.App
        ->add_option("--name", list.Into->Name,
                     "Those with this text in their names; % stands for any text, _ for any letter")
        ->option_text("TEXT");
    AddPaging(*list.App, list.Into->Paging);
    const char *const kDoorHelp = "The door's number";
    AddPlaceCommand(doors, "show", "Show a door", kDoorHelp, context, ShowDoor);
    AddPlaceCommand(doors, "lock", "Lock a door, and show what became of it", kDoorHelp, context,
                    SwitchTo<kLocks, 0>);
    AddPlaceCommand(doors, "unlock", "Unlock a door until it is locked again", kDoorHelp, context,
                    SwitchTo<kLocks, 1>);
    AddPlaceCommand(doors, "hold",
                    "Hold a door unlocked for a moment, to let somebody in; the panel locks it "
                    "again by itself",
                    kDoorHelp, context, SwitchTo<kLocks, 2>);
}

void AddOutputCommands(CLI::App &app, Context &context)
{
    CLI::App &outputs = AddGroup(app, "outputs", "Auxiliary outputs");
    const char *const kOutputHelp = "The output's number";
    AddPlaceCommand(
        outputs, "get", "Show whether an output is on (1) or off (0)", kOutputHelp, context,
        [](Context &its, const Place &place) { ShowStatus(its, kOutputs, place.Number); });
    AddPlaceCommand(outputs, "on", "Switch an output on", kOutputHelp, context,
                    SwitchTo<kOutputs, 1>);
    AddPlaceCommand(outputs, "off", "Switch an output off", kOutputHelp, context,
                    SwitchTo<kOutputs, 0>);
}

} // namespace nimbra::ctl
