#include "nimbractl/Context.h"

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
    const std::optional<client::Answer> answer = context.Panel.Get().AskLine(raw.Line);
    if (!answer)
        throw Refused("The panel does not know this line, and left it unanswered.");
    std::printf("%s\n", Printable(answer->Line).c_str());
    for (const std::string &row : answer->RowLines)
        std::printf("%s\n", Printable(row).c_str());
    if (answer->Result != 0)
        throw Refused(WordOf(answer->Line), answer->Result);
}

} // namespace

void AddRawCommand(CLI::App &app, Context &context)
{
    const auto command = AddCommand<RawLine>(
        app, "raw",
        "Send a line of the protocol as it stands, and print the lines of the answer as they come. "
        "Nothing is checked, doubled or left out. The bytes of a photograph are dropped",
        context, SendRaw);
    command.App->add_option("line", command.Into->Line, "The line, such as 'GetDoorInfo?DoorNo=1'")
        ->required()
        ->option_text("LINE");
}

} // namespace nimbra::ctl
