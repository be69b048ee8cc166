#include "nimbractl/Context.h"
#include "nimbractl/TextWidth.h"
#include "nimbractl/TimeArgument.h"

#include <cstdio>

#include <nimbra-client/PanelClock.h>
#include <nimbra-client/Request.h>

namespace nimbra::ctl {

namespace {

using client::Request;

struct VideoChoice
{
    int Number = 0;
    int Tag = 0;
    std::string Time;
    bool OnlyUrl = false;
};

void Show(Context &context, const Request &request, bool onlyUrl)
{
    if (onlyUrl && context.Options.Output.Joined != nullptr)
        throw WrongUsage("--url prints one address only: name one panel.");
    const client::Response response = context.Panel.Execute(request);
    if (onlyUrl)
        std::printf("%s\n", Printable(response.Header.Text("Url")).c_str());
    else
        WriteRecord(context.Options.Output, response.Header);
}

void ShowLive(Context &context, const VideoChoice &choice)
{
    Show(context, Request("GetLiveVideoInfo").Number("DoorNo", choice.Number), choice.OnlyUrl);
}

void ShowRecording(Context &context, const VideoChoice &choice)
{
    if ((choice.Number != 0) == (choice.Tag != 0) || (choice.Tag != 0) == choice.Time.empty())
        throw WrongUsage("Name an event, or both --tag and --time.");
    int tag = choice.Tag;
    std::string time = choice.Time;
    if (choice.Number != 0) {
        const client::Record event =
            context.Panel.Execute(Request("GetEventLog").Number("EventNo", choice.Number)).Header;
        tag = event.Number("VideoTag");
        time = event.Text("EventTime");
        if (tag == 0)
            throw Refused("No camera has recorded this event.");
    }
    const std::chrono::seconds offset = context.Panel.ClockOffset();
    Request request("GetPlayVideoInfo");
    request.Number("VideoTag", tag);
    request.RawText(
        "EventTime",
        client::FormatTime(ParseTimeArgument(time, TimeZone::Utc, DayPart::Begin).value_or(0) +
                           offset.count()),
        client::kNameBytes);
    Show(context, request, choice.OnlyUrl);
}

} // namespace

void AddVideoCommands(CLI::App &app, Context &context)
{
    CLI::App &video = AddGroup(app, "video",
                               "Cameras and recordings: the recorder, its login in clear text and "
                               "the RTSP address");
    const auto live =
        AddReadCommand<VideoChoice>(video, "live", "Show the camera of a door", context, ShowLive);
    AddNumber(*live.App, "door", live.Into->Number, "The door's number")->required();
    const auto play = AddReadCommand<VideoChoice>(video, "play", "Show the recording of an event",
                                                  context, ShowRecording);
    AddNumber(*play.App, "event", play.Into->Number, "The event's number");
    AddNumber(*play.App, "--tag", play.Into->Tag,
              "A channel instead of an event: its VideoTag; needs --time");
    play.App
        ->add_option("--time", play.Into->Time,
                     "The beginning of the recording, UTC; only with --tag")
        ->check(IsTime())
        ->option_text("TIME");
    for (const auto &command : {live, play})
        command.App->add_flag("--url", command.Into->OnlyUrl,
                              "Print only the address, for a player");
}

} // namespace nimbra::ctl
