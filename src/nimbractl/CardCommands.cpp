#include "nimbractl/Context.h"
#include "nimbractl/Fields.h"

#include <array>
#include <optional>

#include <nimbra-client/PanelClock.h>
#include <nimbra-client/Request.h>

namespace nimbra::ctl {

namespace {

using client::FieldKind;
using client::Record;
using client::Request;

constexpr std::array<FieldOption, 9> kCardFields{{
    {"--user-no", {"UserNo", FieldKind::Number}, "Number of the user that owns the card"},
    {"--format", {"FormatNo", FieldKind::Number}, "Number of the card's format; see formats"},
    {"--card-number", {"CardNumber", FieldKind::Text}, "What is encoded in the card"},
    {"--key-number", {"KeyNumber", FieldKind::Number}, "Key number"},
    {"--status", {"CardStatus", FieldKind::Number}, "Status of the card, as the panel numbers it"},
    {"--type", {"CardType", FieldKind::Number}, "Type of the card, as the panel numbers it"},
    {"--never-expire",
     {"NeverExpire", FieldKind::Number},
     "1 for a card that does not expire, else 0"},
    {"--valid-from", {"ActDate", FieldKind::Date}, "First day on which the card is valid"},
    {"--expires", {"ExpDate", FieldKind::Date}, "Day on which the card expires"},
}};

struct CardFilter
{
    int UserNo = 0;
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

/// Dates are days of the panel's calendar, where they are kept as local midnight.
void UsePanelDays(Context &context, Record &card)
{
    for (const char *key : {"ActDate", "ExpDate"})
        card.Set(key, client::ToPanelDay(card.Text(key), context.Panel.ClockOffset()));
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
    WriteList(context, request, filter.Paging, {},
              [&context](Record &card) { UsePanelDays(context, card); });
}

void ShowCard(Context &context, const CardChange &card)
{
    WriteRecord(context.Options.Output, ReadCard(context, card.Number));
}

/// The panel does not tell a new card's number, but a card number is unique within its format.
std::optional<Record> FindNewCard(Context &context, const GivenFields &given)
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
    return result == 0 ? found : std::nullopt;
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

void AddCard(Context &context, const CardChange &card)
{
    RequireCardKeys(card.Given);
    Request request("AddCardInfo");
    AddGiven(request, kCardFields, card.Given);
    context.Panel.Execute(request);
    if (std::optional<Record> added = FindNewCard(context, card.Given)) {
        UsePanelDays(context, *added);
        WriteRecord(context.Options.Output, *added);
    } else {
        std::fprintf(stderr, "nimbractl: The card is added; its number could not be found out.\n");
    }
}

void SetCard(Context &context, const CardChange &card)
{
    RequireGiven(card.Given);
    RequireCardKeys(card.Given);
    Request check("SetCardInfo");
    AddGiven(check, kCardFields, card.Given);
    Request request("SetCardInfo");
    request.Number("CardNo", card.Number);
    AddGivenOrKept(request, kCardFields, card.Given, ReadCard(context, card.Number), card.MayCut);
    context.Panel.Execute(request);
    // A card whose format is not there cannot be read, but has been changed.
    client::Response after = context.Panel.Get().Execute(GetCard(card.Number));
    if (after.Result != 0) {
        std::fprintf(stderr, "nimbractl: The card is changed; the panel does not show it.\n");
        return;
    }
    UsePanelDays(context, after.Header);
    WriteRecord(context.Options.Output, after.Header);
}

void DeleteCards(Context &context, const Cards &cards)
{
    for (const int number : cards.Numbers) {
        // The panel says yes to every number. A card whose format is gone is found by its levels
        // only, and who may not look may still delete.
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
    WriteRecord(context.Options.Output, record);
}

void SetLevels(Context &context, const LevelChange &card)
{
    if (card.Levels.empty() != card.None)
        throw WrongUsage("Name the access levels, or give --none for none of them.");
    const Record before = context.Panel.Execute(GetLevels(card.Number)).Header;
    Request request("SetCardAccessLevel");
    request.Number("CardNo", card.Number);
    request.Number("SelectType", card.Kind != 0 ? card.Kind : before.Number("SelectType"));
    std::string levels;
    for (const int level : card.Levels)
        levels += (levels.empty() ? "" : " ") + std::to_string(level);
    request.RawText("AccessLevelNo", levels, client::kRequestBytes);
    context.Panel.Execute(request);
    ShowLevels(context, card);
}

void AddLevelCommands(CLI::App &cards, Context &context)
{
    CLI::App &levels = AddGroup(cards, "levels", "Access levels of cards");
    const auto get = AddCommand<LevelChange>(
        levels, "get",
        "Show the access levels of a card. SelectType 1 are plain levels, 2 are groups of them",
        context, ShowLevels);
    const auto set = AddCommand<LevelChange>(
        levels, "set", "Replace all access levels of a card. Nothing checks that the levels exist",
        context, SetLevels);
    for (const auto &command : {get, set})
        AddNumber(*command.App, "number", command.Into->Number, "The card's record number")
            ->required();
    set.App->add_option("levels", set.Into->Levels, "Numbers of the levels or groups")
        ->transform(IsNumber())
        ->option_text("LEVEL...");
    set.App->add_flag("--none", set.Into->None, "Take all levels away");
    AddChoice(*set.App, "--kind", set.Into->Kind, LevelKinds(),
              "What the numbers mean: levels or groups; without it, what the card has now")
        ->option_text("KIND");
}

void AddChangeCommands(CLI::App &cards, Context &context)
{
    const auto show = AddCommand<CardChange>(cards, "show", "Show a card", context, ShowCard);
    const auto add = AddCommand<CardChange>(
        cards, "add",
        "Add a card, and show the new record with its number. It begins without access levels",
        context, AddCard);
    AddFields(*add.App, kCardFields, add.Into->Given);
    for (const char *option : {"--user-no", "--format", "--card-number"})
        add.App->get_option(option)->required();
    const auto set = AddCommand<CardChange>(
        cards, "set",
        "Change a card. The panel overwrites the whole record, so it is read first, and only what "
        "is named is changed; access levels stay. What somebody else changes in the same moment is "
        "lost",
        context, SetCard);
    AddFields(*set.App, kCardFields, set.Into->Given);
    set.App->add_flag("--accept-cut", set.Into->MayCut,
                      "Also when the card number may be longer than the 32 bytes that the panel "
                      "tells; it is then cut");
    for (const auto &command : {show, set})
        AddNumber(*command.App, "number", command.Into->Number, "The card's record number")
            ->required();
}

} // namespace

void AddCardCommands(CLI::App &app, Context &context)
{
    CLI::App &cards = AddGroup(
        app, "cards",
        "Cards and their access levels. CardNo is a card's record number on the panel, CardNumber "
        "what is encoded in it. Dates are days of the panel's calendar; 1970-01-01 stands for "
        "none");
    const auto list = AddCommand<CardFilter>(cards, "list", "List cards", context, ListCards);
    AddNumber(*list.App, "--user-no", list.Into->UserNo, "Those of the user with this number");
    AddPaging(*list.App, list.Into->Paging);
    AddChangeCommands(cards, context);
    const auto remove = AddCommand<Cards>(cards, "delete", "Delete cards, with their access levels",
                                          context, DeleteCards);
    remove.App->add_option("numbers", remove.Into->Numbers, "The cards' record numbers")
        ->transform(IsNumber(1))
        ->required()
        ->option_text("NUMBER...");
    AddLevelCommands(cards, context);
}

} // namespace nimbra::ctl
