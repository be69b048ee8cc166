#include "nimbractl/Context.h"
#include "nimbractl/TextWidth.h"

#include <cstdio>

namespace nimbra::ctl {

namespace {

struct RawLine
{
    std::string Line;
};

std::string WordOf(const std::string &line)
{
    return line.substr(0, line.find("Response?"));
}

void SendRaw(Context &context, const RawLine &raw)
{
    const std::optional<client::Response> response = context.Panel.Get().ExecuteLine(raw.Line);
    if (!response)
        throw Refused("The panel does not know this line and did not respond to it.");
    std::printf("%s\n", Printable(response->Line).c_str());
    for (const std::string &row : response->RowLines)
        std::printf("%s\n", Printable(row).c_str());
    if (response->Result != 0)
        throw Refused(WordOf(response->Line), response->Result);
}

} // namespace

void AddRawCommand(CLI::App &app, Context &context)
{
    const auto command = AddCommand<RawLine>(
        app, "raw",
        "Send a line of the protocol without a change and print the lines of the response, control "
        "characters as ?. Keys and values are not checked, doubled or left out. The bytes of a "
        "photo "
        "are dropped",
        context, SendRaw);
    command.App->add_option("line", command.Into->Line, "The line, such as 'GetDoorInfo?DoorNo=1'")
        ->required()
        ->option_text("LINE");
}

} // namespace nimbra::ctl
