// The configuration of the panel: event codes, card formats, access levels, threat levels.

#include "nimbractl/Context.h"
#include "nimbractl/Fields.h"
#include "nimbractl/LevelNames.h"

#include <array>
#include <map>

#include <nimbra-client/Request.h>

namespace nimbra::ctl {

namespace {

using client::Request;

struct Number
{
    int Value = 0;
    bool IsForced = false;
};

struct CodeFilter
{
    int Code = -1;
    std::string Text;
    client::ListOptions Paging;
};

struct LevelFilter
{
    int Group = 0;
    int Kind = 0;
};

void Show(Context &context, const Request &request)
{
    WriteRecord(context.Options.Output, context.Panel.Execute(request).Header);
}

void ShowCodes(Context &context, const CodeFilter &filter)
{
    if (filter.Code >= 0) {
        Show(context, Request("GetEventCode").Number("Code", filter.Code));
        return;
    }
    Request request("GetEventCodeEx");
    request.Text("Desc", filter.Text, client::kDescriptionBytes);
    WriteList(context, request, filter.Paging);
}

void ShowFormats(Context &context, const Number &number)
{
    if (number.Value != 0)
        Show(context, Request("GetCardFormat").Number("FormatNo", number.Value));
    else
        WriteList(context, Request("GetCardFormatEx"));
}

void ShowAccessLevels(Context &context, const LevelFilter &filter)
{
    if (filter.Group != 0) {
        Show(context,
             Request("GetAccessLevel").Number("SelectType", 2).Number("LevelNo", filter.Group));
        return;
    }
    Request request("GetAccessLevelEx");
    if (filter.Kind != 0)
        request.Number("SelectType", filter.Kind);
    WriteList(context, request);
}

void ListThreats(Context &context, const Number &number)
{
    if (number.Value != 0)
        Show(context, Request("GetThreatInfo").Number("Level", number.Value));
    else
        WriteList(context, Request("GetThreatInfoEx"));
}

void WriteThreat(Context &context, client::Record record)
{
    NamesOfThreatLevels(context)(record);
    WriteRecord(context.Options.Output, record);
}

void ShowThreat(Context &context, const Number &)
{
    WriteThreat(context, context.Panel.Execute(Request("GetThreatLevel")).Header);
}

void SetThreat(Context &context, const Number &number)
{
    // The panel accepts any number. A login without the right to read the list may still set one.
    const Request check = Request("GetThreatInfo").Number("Level", number.Value);
    if (!number.IsForced) {
        const int result = context.Panel.Get().Execute(check).Result;
        if (result != 0 && result != 9)
            throw Refused("GetThreatInfo", result);
    }
    context.Panel.Execute(Request("SetThreatLevel").Number("ThreatLevel", number.Value));
    constexpr static std::array<client::Field, 1> kFields{
        {{"ThreatLevel", client::FieldKind::Number}}};
    const client::Record record(kFields, "ThreatLevel=" + std::to_string(number.Value));
    ShowChange("The threat level is set", [&] { WriteThreat(context, record); });
}

void AddThreatCommands(CLI::App &app, Context &context)
{
    CLI::App &threat = AddGroup(app, "threat", "Threat levels");
    const auto list = AddReadCommand<Number>(threat, "list", "List the threat levels, or show one",
                                             context, ListThreats);
    AddNumber(*list.App, "level", list.Into->Value, "Only this level");
    AddReadCommand<Number>(threat, "get", "Show the threat level in force", context, ShowThreat);
    const auto set =
        AddCommand<Number>(threat, "set", "Set the threat level in force", context, SetThreat);
    AddNumber(*set.App, "level", set.Into->Value, "The level")->required();
    set.App->add_flag("--force", set.Into->IsForced, "Accept a level that is not in the list");
}

} // namespace

const std::map<std::string, int> &LevelKinds()
{
    static const std::map<std::string, int> kinds = {{"levels", 1}, {"groups", 2}};
    return kinds;
}

void AddPanelCommands(CLI::App &app, Context &context)
{
    const auto codes = AddReadCommand<CodeFilter>(
        app, "event-codes", "List the event codes and their meanings, or show one", context,
        ShowCodes);
    codes.App->add_option("code", codes.Into->Code, "Only this code")
        ->transform(IsNumber(0))
        ->option_text("CODE");
    codes.App->add_option("--text", codes.Into->Text, "Only codes with this text in their meaning")
        ->option_text("TEXT");
    AddPaging(*codes.App, codes.Into->Paging);

    const auto formats = AddReadCommand<Number>(
        app, "formats", "List the card formats, or show one", context, ShowFormats);
    AddNumber(*formats.App, "number", formats.Into->Value, "Only this format");

    const auto levels = AddReadCommand<LevelFilter>(app, "levels",
                                                    "List the access levels (SelectType 1) and the "
                                                    "groups of access levels (SelectType 2). Each "
                                                    "kind has its own numbers",
                                                    context, ShowAccessLevels);
    AddChoice(*levels.App, "--kind", levels.Into->Kind, LevelKinds(), "Only this kind");
    AddNumber(*levels.App, "--group", levels.Into->Group, "Only the group of this number");
    AddThreatCommands(app, context);
}

} // namespace nimbra::ctl
