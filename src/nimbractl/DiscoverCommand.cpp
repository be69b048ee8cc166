#include "nimbractl/Context.h"

#include <array>

#include <nimbra-client/Discovery.h>

namespace nimbra::ctl {

namespace {

struct DiscoverChoice
{
    std::vector<std::string> Targets;
    double Seconds = 5;
};

using client::Kind;
constexpr std::array<client::Field, 5> kFields{{
    {"Name", Kind::Text},
    {"Address", Kind::Text},
    {"Port", Kind::Number},
    {"MacAddress", Kind::Text},
    {"Sender", Kind::Text},
}};

void Discover(Context &context, const DiscoverChoice &choice)
{
    const auto writer = MakeListWriter(context.Options.Output, {});
    client::DiscoverOptions options;
    options.Targets = choice.Targets;
    options.Duration = std::chrono::milliseconds(static_cast<int>(choice.Seconds * 1000));
    options.IsCancelled = context.Panel.IsCancelled;
    options.Found = [&writer](const client::FoundPanel &panel) {
        client::Record record(kFields, "");
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
        throw client::Unreachable("No panel answered.");
}

} // namespace

void AddDiscoverCommand(CLI::App &app, Context &context)
{
    const auto command = AddCommand<DiscoverChoice>(
        app, "discover",
        "Look for panels by UDP broadcast on the networks of this machine. Needs no login. Address "
        "and Port are where the panel says it is, Sender is where its answer came from",
        context, Discover);
    command.App
        ->add_option("--target", command.Into->Targets,
                     "Ask this address instead of everyone; may be repeated")
        ->option_text("HOST");
    command.App->add_option("--wait", command.Into->Seconds, "How many seconds to listen")
        ->check(CLI::Range(0.1, 3600.0))
        ->option_text("SECONDS [5]");
}

} // namespace nimbra::ctl
