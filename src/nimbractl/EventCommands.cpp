#include "nimbractl/Context.h"
#include "nimbractl/Fields.h"
#include "nimbractl/Terminal.h"
#include "nimbractl/TimeArgument.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <thread>
#include <utility>
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

TimeZone ZoneOf(bool isLocal)
{
    return isLocal ? TimeZone::Local : TimeZone::Utc;
}

struct EventFilter
{
    GivenFields Given;
    std::string Door;
    std::string From;
    std::string To;
    bool NoLogins = false;
    bool IsLocal = false; ///< times are those of this machine's time zone
    client::ListOptions Paging;

    [[nodiscard]] TimeZone Zone() const { return ZoneOf(IsLocal); }
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

    [[nodiscard]] TimeZone Zone() const { return ZoneOf(IsLocal); }
};

struct OneEvent
{
    int Number = 0;
    bool IsLocal = false;

    [[nodiscard]] TimeZone Zone() const { return ZoneOf(IsLocal); }
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

void ConvertTime(TimeZone zone, Record &event)
{
    if (zone == TimeZone::Local)
        event.Set("EventTime", ToLocalTime(event.Text("EventTime")));
}

void ListEvents(Context &context, const EventFilter &filter)
{
    RowRules rules;
    if (filter.NoLogins)
        rules.IsShown = [&filter](const Record &event) { return IsShown(filter, event); };
    rules.Edit = [&filter](Record &event) { ConvertTime(filter.Zone(), event); };
    client::ListOptions paging = filter.Paging;
    const bool isPage =
        paging.Limit == 0 && IsOutputTerminal() && context.Options.Output.Format == Format::Table;
    if (isPage) // a line for the heading, one for the note, one for the next prompt
        paging.Limit = static_cast<int>(std::max<std::size_t>(GetTerminalSize().Rows, 8) - 3);
    const bool isComplete = WriteList(context, MakeRequest(context, filter), paging, {}, rules);
    if (isPage && !isComplete) {
        const std::string which = paging.Offset == 0
                                      ? "The newest " + std::to_string(paging.Limit) + " events"
                                      : std::to_string(paging.Limit) + " events after the newest " +
                                            std::to_string(paging.Offset);
        std::fprintf(stderr, "%s%s; --limit NUMBER shows more, --offset %d the next page.\n",
                     PanelPrefix(context.Options).c_str(), which.c_str(),
                     paging.Offset + paging.Limit);
    }
}

void ShowEvent(Context &context, const OneEvent &event)
{
    Record record =
        context.Panel.Execute(Request("GetEventLog").Number("EventNo", event.Number)).Header;
    ConvertTime(event.Zone(), record);
    WriteRecord(context.Options.Output, record);
}

/// The events of one query, oldest first.
struct Batch
{
    std::vector<Record> Events;
    int Newest = 0; ///< the largest number that the panel has returned; 0 without an event
};

/// Reads the events after number `known`, and before them the newest `last` that are shown. Returns
/// nothing when the panel does not return them all: it was keeping its database locked.
std::optional<Batch> ReadEvents(Context &context, const Request &request, const EventFilter &filter,
                                int known, int last)
{
    Batch batch;
    client::ListOptions options;
    options.PageSize = last > 0 ? std::min(last, kPageSize) : kNewPageSize;
    int past = 0;
    const int result = context.Panel.Get().List(
        request,
        [&](const Record &event) {
            const int number = event.Number("EventNo");
            batch.Newest = std::max(batch.Newest, number);
            if (number <= known && past == last)
                return false;
            if (!IsShown(filter, event))
                return true;
            past += number <= known ? 1 : 0;
            batch.Events.push_back(event);
            return true;
        },
        options);
    if (result > 1)
        throw Refused(request.Word(), result);
    // On the first page, Result 1 also means that no event matches.
    if (result == 1 && batch.Newest > 0)
        return {};
    std::reverse(batch.Events.begin(), batch.Events.end()); // the panel lists the newest first
    return batch;
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

/// Runs `step` until it returns true, with longer and longer pauses, also after a lost connection.
/// Reports what went wrong, once, and the return of the panel.
void RunUntilDone(Context &context, const std::function<bool()> &step)
{
    std::chrono::seconds pause(1);
    for (std::string fault;;) {
        std::string present = "The panel does not return the list.";
        try {
            if (step()) {
                if (!fault.empty())
                    WriteNote("The panel responds again.");
                return;
            }
        } catch (const client::ConnectionError &error) {
            present = error.what();
        }
        if (present != fault)
            WriteNote(present + " Trying again.");
        fault = present;
        const auto end = Clock::now() + pause;
        while (Clock::now() < end) {
            context.Panel.CheckCancelled();
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        pause = std::min(pause * 2, std::chrono::seconds(30));
    }
}

/// Notes the number of the newest event. Returns false when the panel returns none: this client's
/// login is an event, so the log is not empty.
bool ReadNewestNumber(Context &context, int *number)
{
    client::ListOptions options;
    options.Limit = 1;
    const Request request("GetEventLogEx");
    const int result = context.Panel.Get().List(
        request,
        [number](const Record &event) {
            *number = event.Number("EventNo");
            return false;
        },
        options);
    if (result > 1)
        throw Refused(request.Word(), result);
    return result == 0;
}

void FollowEvents(Context &context, const FollowChoice &choice)
{
    const auto writer = MakeListWriter(
        context.Options.Output, client::FindCommandSchema("GetEventLogEx")->Row, {.IsLive = true});
    const Request request = MakeRequest(context, choice.Filter);
    // Only a panel that was reached before is tried again.
    static_cast<void>(context.Panel.Get());
    int known = std::max(choice.After, 0);
    Batch batch;
    const auto read = [&](int last) {
        std::optional<Batch> events = ReadEvents(context, request, choice.Filter, known, last);
        if (events)
            batch = std::move(*events);
        return events.has_value();
    };
    RunUntilDone(context, [&] {
        if (choice.After < 0 && !ReadNewestNumber(context, &known))
            return false;
        return (choice.After < 0 && choice.Last == 0) || read(choice.Last);
    });
    for (int written = 0, newest = 0;;) {
        if (batch.Newest > 0 && batch.Newest < newest) {
            WriteNote("The event log begins anew.");
            known = newest = 0;
        } else {
            newest = std::max(newest, batch.Newest);
            known = std::max(known, newest);
        }
        for (Record &event : batch.Events) {
            ConvertTime(choice.Filter.Zone(), event);
            writer->Row(event);
            if (++written == choice.Count)
                return;
        }
        Pause(context, Milliseconds(choice.Interval));
        RunUntilDone(context, [&] { return read(0); });
    }
}

/// The rows of a list for a view that is shown again and again.
struct View
{
    std::vector<Record> Rows;
    int Result = 0;

    /// False when a later page has failed: the panel was keeping its database locked.
    [[nodiscard]] bool IsComplete() const { return Result == 0 || Rows.empty(); }
};

View ReadView(Context &context, const Request &request, int limit)
{
    View view;
    client::ListOptions options;
    options.Limit = limit;
    view.Result = context.Panel.Get().List(
        request,
        [&view](const Record &row) {
            view.Rows.push_back(row);
            return true;
        },
        options);
    if (view.Result > 1)
        throw Refused(request.Word(), view.Result);
    return view;
}

/// Writes a list as a table, or the sentence for an empty one.
void WriteView(Context &context, const Request &request, View view, const ListStyle &style,
               TimeZone zone)
{
    const auto writer = MakeListWriter(context.Options.Output,
                                       client::FindCommandSchema(request.Word())->Row, style);
    for (Record &row : view.Rows) {
        ConvertTime(zone, row);
        writer->Row(row);
    }
    writer->End();
    // A panel without doors or events has nothing to watch yet.
    if (view.Result == 1)
        std::printf("%s\n", client::ResultMessage(request.Word(), view.Result).c_str());
}

/// Drops the last rows of both lists for which the terminal has no lines; returns the number of
/// doors dropped. Doors have priority over all but a few events.
std::size_t FitToTerminal(std::vector<Record> *doors, std::vector<Record> *events)
{
    constexpr std::size_t kFewestEvents = 5;
    // Two headings, an empty line, and that of the cursor.
    constexpr std::size_t kOtherLines = 4;
    const std::size_t all = GetTerminalSize().Rows;
    const std::size_t lines = all - std::min(all, kOtherLines);
    const std::size_t left = lines - std::min(lines, doors->size());
    events->resize(std::min(events->size(), std::max(left, kFewestEvents)));
    const std::size_t room = lines - std::min(lines, events->size());
    if (doors->size() <= room)
        return 0;
    // One line says how many there are.
    const std::size_t shown = room - std::min<std::size_t>(room, 1);
    const std::size_t dropped = doors->size() - shown;
    doors->resize(shown);
    return dropped;
}

/// Shows the doors and the latest events once; false when the panel did not return them.
bool ShowDoors(Context &context, const WatchChoice &choice)
{
    const Request doors("GetDoorInfoEx");
    const Request events("GetEventLogEx");
    // The last view stays until there is another one.
    View allDoors = ReadView(context, doors, 0);
    View latest = ReadView(context, events, choice.Events);
    if (!allDoors.IsComplete() || !latest.IsComplete())
        return false;
    std::size_t dropped = 0;
    if (CanMoveCursor(STDOUT_FILENO)) {
        dropped = FitToTerminal(&allDoors.Rows, &latest.Rows);
        std::printf("\033[H\033[2J");
    }
    WriteView(context, doors, std::move(allDoors), {.Status = kLockWords}, TimeZone::Utc);
    if (dropped > 0)
        std::printf("Doors that do not fit on the terminal: %zu\n", dropped);
    std::printf("\n");
    WriteView(context, events, std::move(latest), {}, choice.Zone());
    std::fflush(stdout);
    return true;
}

void WatchDoors(Context &context, const WatchChoice &choice)
{
    if (context.Options.Output.Format != Format::Table)
        throw WrongUsage(
            "doors watch shows tables; events follow and doors list have other forms.");
    // Only a panel that was reached before is tried again.
    static_cast<void>(context.Panel.Get());
    for (int shown = 0;;) {
        RunUntilDone(context, [&] { return ShowDoors(context, choice); });
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
              "any text, _ any character. All filters must match. Times are UTC unless --local is "
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
    list.App->get_option("--limit")->description(
        "Show at most this many rows; by default all, or the newest page on a terminal");
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
