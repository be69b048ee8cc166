#include "nimbractl/CardFields.h"
#include "nimbractl/Context.h"
#include "nimbractl/Fields.h"
#include "nimbractl/LevelNames.h"

#include <algorithm>
#include <array>
#include <optional>

#include <nimbra-client/PanelClock.h>
#include <nimbra-client/Request.h>

namespace nimbra::ctl {

namespace {

using client::FieldKind;
using client::Record;
using client::Request;

struct CardFilter
{
    int UserNo = 0;
    std::string CardNumber;
    client::ListOptions Paging;
};

struct CardChange
{
    int Number = 0;
    GivenFields Given;
    bool MayCut = false;
};

struct Cards
{
    std::vector<int> Numbers;
};

struct LevelChange
{
    int Number = 0;
    int Kind = 0;
    std::vector<int> Levels;
    bool None = false;
};

Request GetCard(int number)
{
    return Request("GetCardInfo").Number("CardNo", number);
}

Request GetLevels(int number)
{
    return Request("GetCardAccessLevel").Number("CardNo", number);
}

Record ReadCard(Context &context, int number)
{
    Record card = context.Panel.Execute(GetCard(number)).Header;
    UsePanelDays(context, card);
    return card;
}

void ListCards(Context &context, const CardFilter &filter)
{
    Request request("GetCardInfoEx");
    if (filter.UserNo != 0)
        request.Number("UserNo", filter.UserNo);
    static_cast<void>(context.Panel.ClockOffset());
    RowRules rules;
    rules.Edit = [&context](Record &card) { UsePanelDays(context, card); };
    if (!filter.CardNumber.empty())
        rules.IsShown = [&filter](const Record &card) {
            return card.Text("CardNumber") == filter.CardNumber;
        };
    WriteList(context, request, filter.Paging, {}, rules);
}

void ShowCard(Context &context, const CardChange &card)
{
    WriteRecord(context.Options.Output, ReadCard(context, card.Number));
}

/// The panel does not report a new card's number, but a card number is unique within its format.
/// Throws Refused when there is none.
Record FindNewCard(Context &context, const GivenFields &given)
{
    std::optional<Record> found;
    const Request request =
        Request("GetCardInfoEx").Number("UserNo", std::stoi(given.at("UserNo")));
    const int result = context.Panel.Get().List(request, [&found, &given](const Record &card) {
        if (card.Text("CardNumber") == given.at("CardNumber") &&
            card.Number("FormatNo") == std::stoi(given.at("FormatNo")))
            found = card;
        return !found;
    });
    if (result != 0 || !found)
        throw Refused(request.Word(), result);
    UsePanelDays(context, *found);
    return *found;
}

void RequireCardKeys(const GivenFields &given)
{
    for (const FieldOption &option : kCardFields) {
        const std::string key = option.Field.Name;
        const auto found = given.find(key);
        if (found == given.end() || (key != "UserNo" && key != "FormatNo" && key != "CardNumber"))
            continue;
        if (found->second.empty() || (key != "CardNumber" && std::stoi(found->second) == 0))
            throw WrongUsage(std::string(option.Option) + " cannot be empty or 0.");
    }
}

/// Reports a number that the panel lacks or cannot look up.
[[noreturn]] void FailMissing(const std::string &name, int number, const char *word, int result)
{
    throw Refused("There is no " + name + " " + std::to_string(number) +
                  ", or the panel cannot read its database; nothing is sent. (" + word +
                  ": Result=" + std::to_string(result) + ")");
}

void RequireExisting(Context &context, const char *word, const char *key, const GivenFields &given,
                     const std::string &name)
{
    const auto found = given.find(key);
    if (found == given.end())
        return;
    const int number = std::stoi(found->second);
    const int result = context.Panel.Get().Execute(Request(word).Number(key, number)).Result;
    if (result != 0 && result != 9)
        FailMissing(name, number, word, result);
}

/// The panel stores cards of users and formats that do not exist. A login without the right to read
/// them may still add and change cards.
void RequireUserAndFormat(Context &context, const GivenFields &given)
{
    RequireExisting(context, "GetUserInfo", "UserNo", given, "user");
    RequireExisting(context, "GetCardFormat", "FormatNo", given, "card format");
}

/// Reports the values that are stored for dates that are not given.
void NoteMissingDates(const GivenFields &given)
{
    const auto neverExpires = given.find("NeverExpire");
    if (neverExpires != given.end() && neverExpires->second != "0")
        return;
    const bool hasFrom = given.contains("ActDate");
    const bool hasTo = given.contains("ExpDate");
    if (hasFrom && hasTo)
        return;
    WriteNote(std::string("The card is stored without a ") +
              (hasFrom ? "day on which it expires"
               : hasTo ? "first day"
                       : "first day and without a day on which it expires") +
              " (1970-01-01), and not as one that never expires. --valid-from, --expires and "
              "--never-expire 1 set this.");
}

void AddCard(Context &context, const CardChange &card)
{
    RequireCardKeys(card.Given);
    Request request("AddCardInfo");
    AddGiven(request, kCardFields, card.Given);
    RequireUserAndFormat(context, card.Given);
    context.Panel.Execute(request);
    NoteMissingDates(card.Given);
    ShowChange("The card is added",
               [&] { WriteRecord(context.Options.Output, FindNewCard(context, card.Given)); });
}

void SetCard(Context &context, const CardChange &card)
{
    RequireGiven(card.Given);
    RequireCardKeys(card.Given);
    Request check("SetCardInfo");
    AddGiven(check, kCardFields, card.Given);
    RequireUserAndFormat(context, card.Given);
    Request request("SetCardInfo");
    request.Number("CardNo", card.Number);
    AddGivenOrKept(request, kCardFields, card.Given, ReadCard(context, card.Number), card.MayCut);
    context.Panel.Execute(request);
    ShowChange("The card is changed", [&] { ShowCard(context, card); });
}

void DeleteCards(Context &context, const Cards &cards)
{
    for (const int number : cards.Numbers) {
        // The panel reports success for every number. A card whose format is gone is found only by
        // its levels, and a login without the right to read cards may still delete them.
        const int result = context.Panel.Get().Execute(GetLevels(number)).Result;
        if (result != 0 && result != 9)
            throw Refused("GetCardAccessLevel", result);
        context.Panel.Execute(Request("DelCardInfo").Number("CardNo", number));
        WriteDone(context, "Card " + std::to_string(number) + " is deleted.", "CardNo", number);
    }
}

void ShowLevels(Context &context, const LevelChange &card)
{
    constexpr static std::array<client::Field, 3> kFields{{{"CardNo", FieldKind::Number},
                                                           {"SelectType", FieldKind::Number},
                                                           {"AccessLevelNo", FieldKind::List}}};
    const Record levels = context.Panel.Execute(GetLevels(card.Number)).Header;
    Record record(kFields, "");
    record.Set("CardNo", std::to_string(card.Number));
    record.Set("SelectType", levels.Text("SelectType"));
    record.Set("AccessLevelNo", levels.Text("AccessLevelNo"));
    NameAccessLevels(context, record);
    WriteRecord(context.Options.Output, record);
}

/// The panel stores numbers of access levels that do not exist. A login without the right to read
/// access levels may still set them.
void RequireLevels(Context &context, int kind, const std::vector<int> &levels)
{
    if (levels.empty())
        return;
    const client::Response response =
        context.Panel.Get().Execute(Request("GetAccessLevelEx").Number("SelectType", kind));
    if (response.Result == 9)
        return;
    const std::string name = kind == 2 ? "group of access levels" : "access level";
    if (response.Result != 0)
        FailMissing(name, levels[0], "GetAccessLevelEx", response.Result);
    for (const int level : levels) {
        const bool exists =
            std::any_of(response.Rows.begin(), response.Rows.end(),
                        [level](const Record &row) { return row.Number("LevelNo") == level; });
        if (!exists)
            throw Refused("There is no " + name + " " + std::to_string(level) +
                          "; nothing is changed.");
    }
}

void SetLevels(Context &context, const LevelChange &card)
{
    if (card.Levels.empty() != card.None)
        throw WrongUsage("Name the access levels, or give --none to remove all.");
    const Record before = context.Panel.Execute(GetLevels(card.Number)).Header;
    Request request("SetCardAccessLevel");
    request.Number("CardNo", card.Number);
    const int kind = card.Kind != 0 ? card.Kind : before.Number("SelectType");
    RequireLevels(context, kind, card.Levels);
    request.Number("SelectType", kind);
    std::string levels;
    for (const int level : card.Levels)
        levels += (levels.empty() ? "" : " ") + std::to_string(level);
    request.RawText("AccessLevelNo", levels, client::kRequestBytes);
    context.Panel.Execute(request);
    ShowChange("The card is changed", [&] { ShowLevels(context, card); });
}

void AddLevelCommands(CLI::App &cards, Context &context)
{
    CLI::App &levels = AddGroup(cards, "levels", "Access levels of cards");
    const auto get = AddReadCommand<LevelChange>(
        levels, "get",
        "Show the access levels of a card. SelectType 1 are access levels, 2 are groups of access "
        "levels",
        context, ShowLevels);
    const auto set = AddCommand<LevelChange>(levels, "set", "Replace all access levels of a card",
                                             context, SetLevels);
    for (const auto &command : {get, set})
        AddNumber(*command.App, "number", command.Into->Number, "The card's record number")
            ->required();
    set.App->add_option("levels", set.Into->Levels, "Numbers of the levels or groups")
        ->transform(IsNumber())
        ->option_text("LEVEL...");
    set.App->add_flag("--none", set.Into->None, "Remove all access levels");
    AddChoice(*set.App, "--kind", set.Into->Kind, LevelKinds(),
              "The kind of the numbers; without it, the kind that the card has now");
}

void AddChangeCommands(CLI::App &cards, Context &context)
{
    const auto show = AddReadCommand<CardChange>(cards, "show", "Show a card", context, ShowCard);
    const auto add = AddCommand<CardChange>(
        cards, "add",
        "Add a card and show the new record with its number. A new card has no access levels",
        context, AddCard);
    AddFields(*add.App, kCardFields, add.Into->Given);
    for (const char *option : {"--user-no", "--format", "--card-number"})
        add.App->get_option(option)->required();
    const auto set = AddCommand<CardChange>(
        cards, "set",
        "Change a card. The panel overwrites the whole record, so the record is read first and "
        "only "
        "the given fields are changed; access levels stay. A change that another client makes at "
        "the same time is lost",
        context, SetCard);
    AddFields(*set.App, kCardFields, set.Into->Given);
    set.App->add_flag("--accept-cut", set.Into->MayCut,
                      "Cut a card number that is not given to the 32 bytes that the panel reports");
    for (const auto &command : {show, set})
        AddNumber(*command.App, "number", command.Into->Number, "The card's record number")
            ->required();
}

} // namespace

void UsePanelDays(Context &context, Record &card)
{
    for (const char *key : {"ActDate", "ExpDate"})
        card.Set(key, client::ToPanelDay(card.Text(key), context.Panel.ClockOffset()));
}

void AddCardCommands(CLI::App &app, Context &context)
{
    CLI::App &cards = AddGroup(
        app, "cards",
        "Cards and their access levels. CardNo is a card's record number on the panel, CardNumber "
        "the number encoded in it. Dates are days of the panel's calendar; 1970-01-01 is no date");
    const auto list = AddReadCommand<CardFilter>(cards, "list", "List cards", context, ListCards);
    AddNumber(*list.App, "--user-no", list.Into->UserNo, "Only cards of the user with this number");
    list.App
        ->add_option("--card-number", list.Into->CardNumber,
                     "Only cards with this number encoded in them")
        ->option_text("TEXT");
    AddPaging(*list.App, list.Into->Paging);
    AddChangeCommands(cards, context);
    const auto remove = AddCommand<Cards>(cards, "delete", "Delete cards and their access levels",
                                          context, DeleteCards);
    remove.App->add_option("numbers", remove.Into->Numbers, "The cards' record numbers")
        ->transform(IsNumber(1))
        ->required()
        ->option_text("NUMBER...");
    AddCardImport(cards, context);
    AddLevelCommands(cards, context);
}

} // namespace nimbra::ctl
