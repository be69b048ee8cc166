#include "nimbractl/Context.h"
#include "nimbractl/Fields.h"
#include "nimbractl/Import.h"
#include "nimbractl/LevelNames.h"

#include <algorithm>
#include <array>
#include <optional>

#include <nimbra-client/Request.h>

namespace nimbra::ctl {

namespace {

using client::FieldKind;
using client::Record;
using client::Request;

constexpr std::array<FieldOption, 9> kUserFields{{
    {"--first-name", {"FirstName", FieldKind::Text}, "First name"},
    {"--middle-name", {"MiddleName", FieldKind::Text}, "Middle name"},
    {"--last-name", {"LastName", FieldKind::Text}, "Last name"},
    {"--phone", {"PhoneNumber", FieldKind::Text}, "Telephone number"},
    {"--cell-phone", {"CellPhone", FieldKind::Text}, "Mobile telephone number"},
    {"--email", {"Email", FieldKind::Text}, "E-mail address"},
    {"--ada", {"Ada", FieldKind::Number}, "ADA setting, 0 or 1"},
    {"--exempt", {"Exempt", FieldKind::Number}, "Exemption from threat levels, 0 or 1"},
    {"--threat-level", {"ThreatLevel", FieldKind::Number}, "The user's threat level"},
}};

constexpr std::array<FieldOption, 8> kUserFilters{{
    {"--first-name", {"FirstName", FieldKind::Text}, "Only users with this text in the first name"},
    {"--middle-name",
     {"MiddleName", FieldKind::Text},
     "Only users with this text in the middle name"},
    {"--last-name", {"LastName", FieldKind::Text}, "Only users with this text in the last name"},
    {"--cell-phone",
     {"CellPhone", FieldKind::Text},
     "Only users with this text in the mobile number"},
    {"--email", {"Email", FieldKind::Text}, "Only users with this text in the e-mail address"},
    {"--ada", {"Ada", FieldKind::Number}, "Only users with this value; 0 is no filter"},
    {"--exempt", {"Exempt", FieldKind::Number}, "Only users with this value; 0 is no filter"},
    {"--threat-level",
     {"ThreatLevel", FieldKind::Number},
     "Only users with this value; 0 is no filter"},
}};

struct UserFilter
{
    GivenFields Given;
    client::ListOptions Paging;
};

struct UserChange
{
    int Number = 0;
    GivenFields Given;
    bool MayCut = false;
};

struct Users
{
    std::vector<int> Numbers;
};

Request GetUser(int number)
{
    return Request("GetUserInfo").Number("UserNo", number);
}

void ListUsers(Context &context, const UserFilter &filter)
{
    Request request("GetUserInfoEx");
    AddGiven(request, kUserFilters, filter.Given);
    RowRules rules;
    rules.Edit = NamesOfThreatLevels(context);
    WriteList(context, request, filter.Paging, {}, rules);
}

void WriteUser(Context &context, Record user)
{
    NamesOfThreatLevels(context)(user);
    WriteRecord(context.Options.Output, user);
}

void ShowUser(Context &context, const UserChange &user)
{
    WriteUser(context, context.Panel.Execute(GetUser(user.Number)).Header);
}

/// The panel does not report a new user's number: it is the largest of those with the same names.
/// Throws Refused when there is none.
Record FindNewUser(Context &context, const GivenFields &given)
{
    Request request("GetUserInfoEx");
    for (const FieldOption &filter : kUserFilters)
        if (const auto found = given.find(filter.Field.Name);
            found != given.end() && filter.Field.Kind == FieldKind::Text)
            request.Text(filter.Field.Name, found->second);
    std::optional<Record> newest;
    const auto take = [&newest, &given](const Record &user) {
        const bool isSame = std::all_of(given.begin(), given.end(), [&user](const auto &field) {
            return user.Text(field.first) == field.second;
        });
        if (isSame && (!newest || newest->Number("UserNo") < user.Number("UserNo")))
            newest = user;
        return true;
    };
    const int result = context.Panel.Get().List(request, take);
    if (result != 0 || !newest)
        throw Refused(request.Word(), result);
    return *newest;
}

void AddUser(Context &context, const UserChange &user)
{
    Request request("AddUserInfo");
    AddGiven(request, kUserFields, user.Given);
    if (user.Given.at("LastName").empty())
        throw WrongUsage("A user must have a last name.");
    static_cast<void>(request.Line());
    context.Panel.Execute(request);
    ShowChange("The user is added", [&] { WriteUser(context, FindNewUser(context, user.Given)); });
}

void SetUser(Context &context, const UserChange &user)
{
    RequireGiven(user.Given);
    const auto lastName = user.Given.find("LastName");
    if (lastName != user.Given.end() && lastName->second.empty())
        throw WrongUsage("A user must have a last name.");
    Request check("SetUserInfo");
    AddGiven(check, kUserFields, user.Given);
    const client::Response before = context.Panel.Execute(GetUser(user.Number));
    Request request("SetUserInfo");
    request.Number("UserNo", user.Number);
    AddGivenOrKept(request, kUserFields, user.Given, before.Header, user.MayCut);
    context.Panel.Execute(request);
    ShowChange("The user is changed", [&] { ShowUser(context, user); });
}

void DeleteUsers(Context &context, const Users &users)
{
    for (const int number : users.Numbers) {
        // The panel reports success for every number. A login without the right to read users may
        // still delete them.
        const int result = context.Panel.Get().Execute(GetUser(number)).Result;
        if (result != 0 && result != 9)
            throw Refused("GetUserInfo", result);
        context.Panel.Execute(Request("DelUserInfo").Number("UserNo", number));
        WriteDone(context, "User " + std::to_string(number) + " is deleted.", "UserNo", number);
    }
}

void ImportUsers(Context &context, const ImportChoice &choice)
{
    ImportKind kind{};
    kind.Title = "Users";
    kind.NumberKey = "UserNo";
    kind.NoSuchOne = "There is no such user.";
    kind.ListWord = "GetUserInfoEx";
    kind.AddWord = "AddUserInfo";
    kind.SetWord = "SetUserInfo";
    kind.Fields = kUserFields;
    kind.Required = {"LastName"};
    RunImport(context, kind, choice);
}

} // namespace

void AddUserCommands(CLI::App &app, Context &context)
{
    CLI::App &users = AddGroup(app, "users", "Users and their photos");
    const auto list = AddReadCommand<UserFilter>(users, "list", "List users", context, ListUsers);
    AddFields(*list.App, kUserFilters, list.Into->Given);
    AddPaging(*list.App, list.Into->Paging);
    AddFooter(*list.App,
              "A text is found anywhere, in upper and lower case of ASCII letters; % in it is any "
              "text, _ any character. All filters must match.");

    const auto show = AddReadCommand<UserChange>(users, "show", "Show a user", context, ShowUser);
    const auto add = AddCommand<UserChange>(
        users, "add", "Add a user and show the new record with its number", context, AddUser);
    AddFields(*add.App, kUserFields, add.Into->Given);
    add.App->get_option("--last-name")->required();

    const auto set = AddCommand<UserChange>(
        users, "set",
        "Change a user. The panel overwrites the whole record, so the record is read first and "
        "only "
        "the given fields are changed; an empty value clears a field. A change that another client "
        "makes at the same time is lost",
        context, SetUser);
    AddFields(*set.App, kUserFields, set.Into->Given);
    set.App->add_flag("--accept-cut", set.Into->MayCut,
                      "Cut texts that are not given to the 32 bytes that the panel reports");
    for (const auto &command : {show, set})
        AddNumber(*command.App, "number", command.Into->Number, "The user's number")->required();

    const auto remove =
        AddCommand<Users>(users, "delete", "Delete users and their cards. Photos stay on the panel",
                          context, DeleteUsers);
    remove.App->add_option("numbers", remove.Into->Numbers, "The users' numbers")
        ->transform(IsNumber(1)) // cards without a user have user 0
        ->required()
        ->option_text("NUMBER...");
    const auto import = AddCommand<ImportChoice>(
        users, "import",
        "Add and change users as a CSV file says. Its first line names the columns, as users list "
        "-o csv does, in any order; columns may be left out. A row with a UserNo changes that "
        "user, "
        "one without adds a user. An empty value clears a field. All rows are checked before the "
        "first is sent",
        context, ImportUsers);
    AddImportOptions(*import.App, *import.Into);
    AddPhotoCommands(users, context);
}

} // namespace nimbra::ctl
