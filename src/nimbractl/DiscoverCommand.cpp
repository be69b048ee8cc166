#include "nimbractl/Context.h"
#include "nimbractl/Fields.h"

#include <array>

#include <nimbra-client/Discovery.h>

namespace nimbra::ctl {

namespace {

struct DiscoverChoice
{
    std::vector<std::string> Targets;
    double Seconds = 5;
};

using client::FieldKind;
constexpr std::array<client::Field, 5> kPanelFields{{
    {"Name", FieldKind::Text},
    {"Address", FieldKind::Text},
    {"Port", FieldKind::Number},
    {"MacAddress", FieldKind::Text},
    {"Sender", FieldKind::Text},
}};

void Discover(Context &context, const DiscoverChoice &choice)
{
    const auto writer = MakeListWriter(context.Options.Output, kPanelFields);
    client::DiscoveryOptions options;
    options.Targets = choice.Targets;
    options.Duration = std::chrono::milliseconds(static_cast<int>(choice.Seconds * 1000));
    options.IsCancelled = context.Panel.IsCancelled;
    options.OnFound = [&writer](const client::DiscoveredPanel &panel) {
        client::Record record(kPanelFields, "");
        record.Set("Name", panel.ModelName);
        record.Set("Address", panel.Address);
        record.Set("Port", std::to_string(panel.Port));
        record.Set("MacAddress", panel.MacAddress);
        record.Set("Sender", panel.Sender);
        writer->Row(record);
    };
    const bool isNone = client::Discover(options).empty();
    writer->End();
    if (isNone)
        throw client::ConnectionError("No panel responded.");
}

} // namespace

void AddDiscoverCommand(CLI::App &app, Context &context)
{
    const auto command = AddCommand<DiscoverChoice>(
        app, "discover",
        "Look for panels by UDP broadcast on the networks of this machine. Needs no login. Address "
        "and Port are those that the panel reports, Sender is the address that its response came "
        "from",
        context, Discover);
    AddViewOptions(*command.App, context.Options);
    command.App
        ->add_option("--target", command.Into->Targets,
                     "Probe this address instead of all panels of the networks; may be repeated")
        ->option_text("HOST");
    command.App->add_option("--wait", command.Into->Seconds, "Seconds to wait for responses")
        ->check(IsDuration())
        ->option_text("SECONDS [5]");
}

} // namespace nimbra::ctl
