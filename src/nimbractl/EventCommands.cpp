#include "nimbractl/Context.h"
#include "nimbractl/Fields.h"
#include "nimbractl/Terminal.h"
#include "nimbractl/TimeArgument.h"

#include <algorithm>
#include <array>
#include <optional>
#include <thread>
#include <vector>

#include <nimbra-client/CommandSchema.h>
#include <nimbra-client/PanelClock.h>
#include <nimbra-client/Request.h>
#include <nimbra-client/ResultMessage.h>
#include <unistd.h>

namespace nimbra::ctl {

namespace {

using client::FieldKind;
using client::Record;
using client::Request;

using Clock = std::chrono::steady_clock;

constexpr int kPageSize = 200;

/// New events are few: they are on the first page.
constexpr int kNewPageSize = 25;

constexpr std::array<FieldOption, 8> kFilters{{
    {"--code", {"EventCode", FieldKind::Number}, "Only this event code; see event-codes"},
    {"--user-no", {"UserNo", FieldKind::Number}, "Only events of the user with this number"},
    {"--user-name",
     {"UserName", FieldKind::Text},
     "Only events with this text in the user's or login's name"},
    {"--card", {"CardNo", FieldKind::Number}, "Only events of the card with this record number"},
    {"--device",
     {"DeviceName", FieldKind::Text},
     "Only events with this text in the device's name"},
    {"--text",
     {"EventDesc", FieldKind::Text},
     "Only events with this text in the description",
     client::kDescriptionBytes},
    {"--device-type", {"DeviceType", FieldKind::Number}, "Only events of devices of this kind"},
    {"--video-tag", {"VideoTag", FieldKind::Number}, "Only events of this camera channel"},
}};

struct EventFilter
{
    GivenFields Given;
    std::string Door;
    std::string From;
    std::string To;
    bool NoLogins = false;
    bool IsLocal = false; ///< times are those of this machine's time zone
    client::ListOptions Paging;

    [[nodiscard]] TimeZone Zone() const { return IsLocal ? TimeZone::Local : TimeZone::Utc; }
};

struct FollowChoice
{
    EventFilter Filter;
    double Interval = 2;
    int Last = 0;
    int After = -1; ///< -1: not given
    int Count = 0;
};

struct WatchChoice
{
    double Interval = 2;
    int Events = 10;
    int Count = 0;
    bool IsLocal = false;
};

struct OneEvent
{
    int Number = 0;
    bool IsLocal = false;
};

/// The code of the event of a login through the protocol.
constexpr int kLoginCode = 15107;

/// Adds a time in the panel's time zone.
void AddTime(Context &context, Request &request, const char *key, std::int64_t seconds)
{
    const std::chrono::seconds offset = context.Panel.ClockOffset();
    request.RawText(key, client::FormatTime(seconds + offset.count()), client::kNameBytes);
}

void AddTimes(Context &context, Request &request, const EventFilter &filter)
{
    const auto from = ParseTimeArgument(filter.From, filter.Zone(), DayPart::Begin);
    const auto to = ParseTimeArgument(filter.To, filter.Zone(), DayPart::End);
    if (from && to && *from > *to)
        throw WrongUsage("--from is later than --to.");
    if (from)
        AddTime(context, request, "FromTime", *from);
    if (to)
        AddTime(context, request, "ToTime", *to);
}

/// Adds a door's present name to a filter, if it can be read and sent.
void AddNameOf(Context &context, Request &request, int door)
{
    const client::Response response =
        context.Panel.Get().Execute(Request("GetDoorInfo").Number("DoorNo", door));
    try {
        if (response.Result == 0)
            request.Text("DeviceName", response.Header.Text("Name"));
    } catch (const client::RequestError &) {
        // No request can carry the name: only the port is a filter.
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
    AddTimes(context, request, filter);
    return request;
}

bool IsShown(const EventFilter &filter, const Record &event)
{
    return !filter.NoLogins || event.Number("EventCode") != kLoginCode;
}

void ConvertTime(bool isLocal, Record &event)
{
    if (isLocal)
        event.Set("EventTime", ToLocalTime(event.Text("EventTime")));
}

void ListEvents(Context &context, const EventFilter &filter)
{
    RowRules rules;
    if (filter.NoLogins)
        rules.IsShown = [&filter](const Record &event) { return IsShown(filter, event); };
    rules.Edit = [&filter](Record &event) { ConvertTime(filter.IsLocal, event); };
    client::ListOptions paging = filter.Paging;
    const bool isPage =
        paging.Limit == 0 && IsOutputTerminal() && context.Options.Output.Format == Format::Table;
    if (isPage) // a line for the heading, one for the note, one for the next prompt
        paging.Limit = static_cast<int>(std::max<std::size_t>(GetTerminalSize().Rows, 8) - 3);
    const bool isComplete = WriteList(context, MakeRequest(context, filter), paging, {}, rules);
    if (isPage && !isComplete)
        std::fprintf(stderr,
                     "%sThe newest %d events; --limit NUMBER shows more, --offset %d the "
                     "next page.\n",
                     PanelPrefix(context.Options).c_str(), paging.Limit,
                     paging.Offset + paging.Limit);
}

void ShowEvent(Context &context, const OneEvent &event)
{
    Record record =
        context.Panel.Execute(Request("GetEventLog").Number("EventNo", event.Number)).Header;
    ConvertTime(event.IsLocal, record);
    WriteRecord(context.Options.Output, record);
}

/// Returns the events that match, oldest first: the newest `limit`, or all after `known`.
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
    std::reverse(events.begin(), events.end()); // the panel lists the newest first
    return events;
}

/// Waits between two requests and keeps the session alive. A lost connection is left to the next
/// request.
void Pause(Context &context, std::chrono::milliseconds duration)
{
    constexpr std::chrono::seconds kKeepAlive(4);
    const auto end = Clock::now() + duration;
    auto nextHeartbeat = Clock::now() + kKeepAlive;
    while (Clock::now() < end) {
        context.Panel.CheckCancelled();
        if (Clock::now() >= nextHeartbeat) {
            nextHeartbeat += kKeepAlive;
            try {
                context.Panel.Get().KeepAlive();
            } catch (const client::ConnectionError &) {
                nextHeartbeat = end;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

std::chrono::milliseconds Milliseconds(double seconds)
{
    return std::chrono::milliseconds(static_cast<int>(seconds * 1000));
}

/// Runs `step` again after a lost connection, with longer and longer pauses. Reports the loss and
/// the return of the panel.
void RunUntilConnected(Context &context, const std::function<void()> &step)
{
    std::chrono::seconds pause(1);
    for (bool isLost = false;;) {
        try {
            step();
            if (isLost)
                WriteNote("The panel responds again.");
            return;
        } catch (const client::ConnectionError &error) {
            if (!isLost)
                WriteNote(std::string(error.what()) + " Trying again.");
            isLost = true;
        }
        const auto end = Clock::now() + pause;
        while (Clock::now() < end) {
            context.Panel.CheckCancelled();
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        pause = std::min(pause * 2, std::chrono::seconds(30));
    }
}

/// Returns the number of the newest event; 0 when there is none.
int NewestNumber(Context &context)
{
    const std::vector<Record> newest = NewestEvents(context, Request("GetEventLogEx"), 1, 0);
    return newest.empty() ? 0 : newest.back().Number("EventNo");
}

void FollowEvents(Context &context, const FollowChoice &choice)
{
    const auto writer = MakeListWriter(
        context.Options.Output, client::FindCommandSchema("GetEventLogEx")->Row, {.IsLive = true});
    const Request request = MakeRequest(context, choice.Filter);
    // Only a panel that was reached before is tried again.
    static_cast<void>(context.Panel.Get());
    int known = std::max(choice.After, 0);
    std::vector<Record> events;
    RunUntilConnected(context, [&] {
        if (choice.After < 0)
            known = NewestNumber(context);
        if (choice.After >= 0 || choice.Last > 0)
            events = NewestEvents(context, request, choice.Last, std::max(choice.After, 0));
    });
    for (int written = 0;;) {
        for (Record &event : events) {
            known = std::max(known, event.Number("EventNo"));
            if (!IsShown(choice.Filter, event))
                continue;
            ConvertTime(choice.Filter.IsLocal, event);
            writer->Row(event);
            if (++written == choice.Count)
                return;
        }
        Pause(context, Milliseconds(choice.Interval));
        RunUntilConnected(context, [&] { events = NewestEvents(context, request, 0, known); });
    }
}

/// Writes a list as a table, or the sentence for an empty one.
void WriteRows(Context &context, const Request &request, int limit, const ListStyle &style,
               bool isLocal)
{
    client::ListOptions options;
    options.Limit = limit;
    const auto writer = MakeListWriter(context.Options.Output,
                                       client::FindCommandSchema(request.Word())->Row, style);
    const int result = context.Panel.Get().List(
        request,
        [&writer, isLocal](Record row) {
            ConvertTime(isLocal, row);
            writer->Row(row);
            return true;
        },
        options);
    writer->End();
    if (result > 1)
        throw Refused(request.Word(), result);
    // A panel without doors or events has nothing to watch yet.
    if (result == 1)
        std::printf("%s\n", client::ResultMessage(request.Word(), result).c_str());
}

void WatchDoors(Context &context, const WatchChoice &choice)
{
    if (context.Options.Output.Format != Format::Table)
        throw WrongUsage(
            "doors watch shows tables; events follow and doors list have other forms.");
    // Only a panel that was reached before is tried again.
    static_cast<void>(context.Panel.Get());
    for (int shown = 0;;) {
        RunUntilConnected(context, [&] {
            if (CanMoveCursor(STDOUT_FILENO))
                std::printf("\033[H\033[2J");
            WriteRows(context, Request("GetDoorInfoEx"), 0, {.Status = kLockWords}, false);
            std::printf("\n");
            WriteRows(context, Request("GetEventLogEx"), choice.Events, {}, choice.IsLocal);
            std::fflush(stdout);
        });
        if (++shown == choice.Count)
            return;
        Pause(context, Milliseconds(choice.Interval));
        if (!CanMoveCursor(STDOUT_FILENO))
            std::printf("\n");
    }
}

void AddLocalOption(CLI::App &app, bool &isLocal)
{
    app.add_flag("--local", isLocal, "Times are those of this machine's time zone, not UTC");
}

void AddFilterOptions(CLI::App &app, EventFilter &filter)
{
    app.add_option("--door", filter.Door,
                   "Only events of this door; by number, those with its present name")
        ->option_text("NUMBER|NAME");
    AddFields(app, kFilters, filter.Given);
    app.add_flag("--no-logins", filter.NoLogins, "Leave out the events of logins");
    AddLocalOption(app, filter.IsLocal);
    AddFooter(app,
              "A text is found anywhere, in upper and lower case of ASCII letters; % in it is "
              "any text, _ any letter. All filters must match. Times are UTC unless --local is "
              "given. --user is not a filter: it is the name to log in with.");
}

} // namespace

void AddEventCommands(CLI::App &app, Context &context)
{
    CLI::App &events = AddGroup(app, "events", "The event log");
    const auto list = AddReadCommand<EventFilter>(events, "list", "List events, newest first",
                                                  context, ListEvents);
    list.App
        ->add_option("--from", list.Into->From,
                     "Only events at this time or later: \"2026-01-31 17:05:00\", "
                     "2026-01-31T17:05:00Z, 2026-01-31, today, yesterday, -90m, -2h, -7d")
        ->check(IsTime())
        ->option_text("TIME");
    list.App
        ->add_option("--to", list.Into->To,
                     "Only events at this time or earlier; a day means its end")
        ->check(IsTime())
        ->option_text("TIME");
    AddFilterOptions(*list.App, *list.Into);
    AddPaging(*list.App, list.Into->Paging);
    const auto show = AddReadCommand<OneEvent>(events, "show", "Show an event", context, ShowEvent);
    AddNumber(*show.App, "number", show.Into->Number, "The event's number")->required();
    AddLocalOption(*show.App, show.Into->IsLocal);
    const auto follow = AddCommand<FollowChoice>(
        events, "follow",
        "Print new events as they arrive, oldest first, until Ctrl-C. A connection that is lost is "
        "tried again. JSON is one object a line",
        context, FollowEvents);
    AddViewOptions(*follow.App, context.Options);
    AddFilterOptions(*follow.App, follow.Into->Filter);
    follow.App->add_option("--last", follow.Into->Last, "Begin with this many past events")
        ->transform(IsNumber(1, 100000))
        ->option_text("NUMBER");
    follow.App
        ->add_option("--after", follow.Into->After,
                     "Begin after the event with this number, oldest first")
        ->transform(IsNumber(0))
        ->option_text("NUMBER")
        ->excludes("--last");
    follow.App->add_option("--count", follow.Into->Count, "End after this many events")
        ->transform(IsNumber(1))
        ->option_text("NUMBER");
    follow.App
        ->add_option("--interval", follow.Into->Interval,
                     "Seconds between two requests for new events")
        ->check(IsDuration())
        ->option_text("SECONDS [2]");
}

void AddWatchCommand(CLI::App &doors, Context &context)
{
    const auto watch = AddCommand<WatchChoice>(
        doors, "watch", "Show the doors and the latest events again and again, until Ctrl-C",
        context, WatchDoors);
    AddWideOption(*watch.App, context.Options);
    AddLocalOption(*watch.App, watch.Into->IsLocal);
    watch.App->add_option("--events", watch.Into->Events, "Show this many events")
        ->transform(IsNumber(1, 1000))
        ->option_text("NUMBER [10]");
    watch.App->add_option("--count", watch.Into->Count, "End after showing this many times")
        ->transform(IsNumber(1))
        ->option_text("NUMBER");
    watch.App->add_option("--interval", watch.Into->Interval, "Seconds between two requests")
        ->check(IsDuration())
        ->option_text("SECONDS [2]");
}

} // namespace nimbra::ctl
