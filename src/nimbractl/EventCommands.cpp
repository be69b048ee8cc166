#include "nimbractl/Context.h"
#include "nimbractl/Fields.h"

#include <algorithm>
#include <array>
#include <optional>
#include <thread>
#include <vector>

#include <nimbra-client/PanelClock.h>
#include <nimbra-client/Request.h>

namespace nimbra::ctl {

namespace {

using client::FieldKind;
using client::Record;
using client::Request;

constexpr int kPageSize = 200;

/// New events are few, and stand on the first page.
constexpr int kNewPageSize = 25;

constexpr std::array<FieldOption, 8> kFilters{{
    {"--code", {"EventCode", FieldKind::Number}, "Of this event code; see event-codes"},
    {"--user-no", {"UserNo", FieldKind::Number}, "Of the user with this number"},
    {"--user-name", {"UserName", FieldKind::Text}, "With this text in the user's or login's name"},
    {"--card", {"CardNo", FieldKind::Number}, "Of the card with this record number"},
    {"--device", {"DeviceName", FieldKind::Text}, "With this text in the device's name"},
    {"--text",
     {"EventDesc", FieldKind::Text},
     "With this text in the description",
     client::kDescriptionBytes},
    {"--device-type", {"DeviceType", FieldKind::Number}, "Of devices of this kind"},
    {"--video-tag", {"VideoTag", FieldKind::Number}, "Of this camera channel"},
}};

struct EventFilter
{
    GivenFields Given;
    std::string Door;
    std::string From;
    std::string To;
    client::ListOptions Paging;
};

struct FollowChoice
{
    EventFilter Filter;
    double Interval = 2;
    int Last = 0;
    int Count = 0;
};

struct OneEvent
{
    int Number = 0;
};

CLI::Validator IsTime()
{
    return {[](std::string &text) {
                return client::ParseTime(text)
                           ? std::string()
                           : "\"" + text + "\" is no time such as \"2026-01-31 17:05:00\"";
            },
            ""};
}

/// Adds a time of the command line, UTC, as the panel reads it, in its own zone.
void AddTime(Context &context, Request &request, const char *key, const std::string &text,
             int atEndOfDay)
{
    if (text.empty())
        return;
    std::int64_t seconds = client::ParseTime(text).value_or(0);
    if (text.find(':') == std::string::npos)
        seconds += atEndOfDay;
    const std::chrono::seconds offset = context.Panel.ClockOffset();
    request.RawText(key, client::FormatTime(seconds + offset.count()), client::kNameBytes);
}

/// Adds a door's present name to a filter, where it can be had and sent.
void AddNameOf(Context &context, Request &request, int door)
{
    const client::Response response =
        context.Panel.Get().Execute(Request("GetDoorInfo").Number("DoorNo", door));
    try {
        if (response.Result == 0)
            request.Text("DeviceName", response.Header.Text("Name"));
    } catch (const client::RequestError &) {
        // A name that no request can carry: the port alone has to do.
    }
}

/// Adds the filter for a door: a name, or a number. Other devices may have the port of the same
/// number, so the door's name is added to that.
void AddDoor(Context &context, Request &request, const std::string &door, const GivenFields &given)
{
    if (door.find_first_not_of("0123456789") != std::string::npos) {
        request.Text("DeviceName", door);
        return;
    }
    const int number = client::ParseNumber(door).value_or(0);
    if (number == 0)
        throw WrongUsage("There is no door " + door + ".");
    request.Number("DevicePort", number);
    if (given.count("DeviceName") == 0)
        AddNameOf(context, request, number);
}

Request MakeRequest(Context &context, const EventFilter &filter)
{
    Request request("GetEventLogEx");
    AddGiven(request, kFilters, filter.Given);
    if (!filter.Door.empty())
        AddDoor(context, request, filter.Door, filter.Given);
    AddTime(context, request, "FromTime", filter.From, 0);
    AddTime(context, request, "ToTime", filter.To, 86399);
    return request;
}

void ListEvents(Context &context, const EventFilter &filter)
{
    WriteList(context, MakeRequest(context, filter), filter.Paging);
}

void ShowEvent(Context &context, const OneEvent &event)
{
    const auto response =
        context.Panel.Execute(Request("GetEventLog").Number("EventNo", event.Number));
    WriteRecord(context.Options.Output, response.Header);
}

/// The events that match, newest first: the newest `limit` ones, or those behind `known`.
std::vector<Record> NewestEvents(Context &context, const Request &request, int limit, int known)
{
    std::vector<Record> events;
    client::ListOptions options;
    options.Limit = limit;
    options.PageSize = limit > 0 ? std::min(limit, kPageSize) : kNewPageSize;
    const int result = context.Panel.Get().List(
        request,
        [&events, known](const Record &event) {
            if (event.Number("EventNo") <= known)
                return false;
            events.push_back(event);
            return true;
        },
        options);
    // Result 1 is also the result when there is no event yet.
    if (result > 1)
        throw Refused(request.Word(), result);
    return events;
}

/// Waits between two looks at the log, without letting the session end.
void Pause(Context &context, double duration)
{
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::seconds kKeepAlive(4);
    const auto end = Clock::now() + std::chrono::milliseconds(static_cast<int>(duration * 1000));
    auto nextHeartbeat = Clock::now() + kKeepAlive;
    while (Clock::now() < end) {
        if (context.Panel.IsCancelled && context.Panel.IsCancelled())
            throw client::CancelledError();
        if (Clock::now() >= nextHeartbeat) {
            context.Panel.Get().KeepAlive();
            nextHeartbeat += kKeepAlive;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

void FollowEvents(Context &context, const FollowChoice &choice)
{
    const auto writer = MakeListWriter(context.Options.Output, {{"0", "1"}, true});
    const Request request = MakeRequest(context, choice.Filter);
    int known = 0;
    for (const Record &newest : NewestEvents(context, Request("GetEventLogEx"), 1, 0))
        known = newest.Number("EventNo");
    std::vector<Record> events;
    if (choice.Last > 0)
        events = NewestEvents(context, request, choice.Last, 0);
    for (int written = 0;;) {
        for (auto event = events.rbegin(); event != events.rend(); ++event) {
            writer->Row(*event);
            known = std::max(known, event->Number("EventNo"));
            if (++written == choice.Count)
                return;
        }
        Pause(context, choice.Interval);
        events = NewestEvents(context, request, 0, known);
    }
}

void AddFilterOptions(CLI::App &app, EventFilter &filter)
{
    app.add_option("--door", filter.Door,
                   "Of this door; by number, those that have its present name")
        ->option_text("NUMBER|NAME");
    AddFields(app, kFilters, filter.Given);
    AddFooter(app, "A text is found anywhere, without regard to the case of ASCII letters; % in it "
                   "stands for any\ntext and _ for any letter. Several filters must all match. "
                   "Times are UTC, as in the output.\n--user is no filter: it names the login.");
}

} // namespace

void AddEventCommands(CLI::App &app, Context &context)
{
    CLI::App &events = AddGroup(app, "events", "The event log");
    const auto list =
        AddCommand<EventFilter>(events, "list", "List events, newest first", context, ListEvents);
    list.App
        ->add_option("--from", list.Into->From,
                     "At this time or later: \"2026-01-31 17:05:00\", or a day")
        ->check(IsTime())
        ->option_text("TIME");
    list.App->add_option("--to", list.Into->To, "At this time or earlier; of a day, its end")
        ->check(IsTime())
        ->option_text("TIME");
    AddFilterOptions(*list.App, *list.Into);
    AddPaging(*list.App, list.Into->Paging);
    const auto show = AddCommand<OneEvent>(events, "show", "Show an event", context, ShowEvent);
    AddNumber(*show.App, "number", show.Into->Number, "The event's number")->required();
    const auto follow = AddCommand<FollowChoice>(
        events, "follow",
        "Print new events as they come, oldest first, until Ctrl-C. JSON is one object a line",
        context, FollowEvents);
    AddFilterOptions(*follow.App, follow.Into->Filter);
    follow.App->add_option("--last", follow.Into->Last, "Begin with so many events of the past")
        ->transform(IsNumber(1, 100000))
        ->option_text("NUMBER");
    follow.App->add_option("--count", follow.Into->Count, "End after so many events")
        ->transform(IsNumber(1))
        ->option_text("NUMBER");
    follow.App
        ->add_option("--interval", follow.Into->Interval, "Seconds between two looks at the log")
        ->check(CLI::Range(0.1, 3600.0))
        ->option_text("SECONDS [2]");
}

} // namespace nimbra::ctl
