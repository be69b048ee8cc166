#include "nimbractl/Context.h"

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
    request.RawText("EventTime",
                    client::FormatTime(client::ParseTime(time).value_or(0) + offset.count()),
                    client::kNameBytes);
    Show(context, request, choice.OnlyUrl);
}

} // namespace

void AddVideoCommands(CLI::App &app, Context &context)
{
    CLI::App &video = AddGroup(app, "video",
                               "Where to fetch pictures: the recorder, its login in clear, and the "
                               "RTSP address");
    const auto live = AddCommand<VideoChoice>(video, "live", "Show the camera that watches a door",
                                              context, ShowLive);
    AddNumber(*live.App, "door", live.Into->Number, "The door's number")->required();
    const auto play = AddCommand<VideoChoice>(video, "play", "Show the recording of an event",
                                              context, ShowRecording);
    AddNumber(*play.App, "event", play.Into->Number, "The event's number");
    AddNumber(*play.App, "--tag", play.Into->Tag, "A channel instead of an event: its VideoTag");
    play.App->add_option("--time", play.Into->Time, "When the recording begins, UTC")
        ->check([](const std::string &text) {
            return client::ParseTime(text)
                       ? std::string()
                       : "\"" + text + "\" is no time such as \"2026-01-31 17:05:00\"";
        })
        ->option_text("TIME");
    for (const auto &command : {live, play})
        command.App->add_flag("--url", command.Into->OnlyUrl,
                              "Print nothing but the address, for a player");
}

} // namespace nimbra::ctl
