#include "fuzz/Commands.h"

#include "fuzz/Finding.h"
#include "fuzz/MessageModel.h"
#include "fuzz/ValueModel.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace nimbra::fuzz {

namespace {

using Kind = Key::Kind;

constexpr std::size_t kCommandsBeforeLogin = 2;

Key Text(const char *name, std::size_t size)
{
    return {name, Kind::Text, size};
}

Key Required(Key key)
{
    key.IsRequired = true;
    return key;
}

/// The keys of a list: its own and those of the page.
std::vector<Key> Paged(std::vector<Key> keys)
{
    keys.push_back({"Offset"});
    keys.push_back({"Limit"});
    return keys;
}

std::vector<Key> UserKeys()
{
    return {Text("FirstName", 32),
            Text("MiddleName", 32),
            Text("LastName", 32),
            Text("PhoneNumber", 32),
            Text("CellPhone", 32),
            Text("Email", 32),
            {"Ada"},
            {"Exempt"},
            {"ThreatLevel"}};
}

std::vector<Key> NewUserKeys()
{
    std::vector<Key> keys = UserKeys();
    keys[2].IsRequired = true;
    return keys;
}

std::vector<Key> CardKeys()
{
    return {Required({"UserNo"}), Required({"FormatNo"}),  Required(Text("CardNumber", 32)),
            {"KeyNumber"},        {"CardStatus"},          {"CardType"},
            {"NeverExpire"},      {"ActDate", Kind::Date}, {"ExpDate", Kind::Date}};
}

std::vector<Key> With(Key key, std::vector<Key> keys)
{
    keys.push_back(key);
    return keys;
}

constexpr char kList[] = "&Total=%d&Offset=%d&Count=%d";
constexpr char kStatus[] = "&Status=%d";
constexpr char kVideo[] = "&Name=%s&Type=%d&Address=%s&Port=%d&Username=%s&Password=%s&Channel=%d"
                          "&Url=\"rtsp://%s\"";
constexpr char kEvent[] = "&EventNo=%d&EventTime=%s&DeviceType=%d&DevicePort=%d&DeviceName=%s"
                          "&EventCode=%d&EventDesc=%s&CardNo=%d&UserNo=%d&UserName=%s&VideoTag=%d";
constexpr char kUser[] = "&UserNo=%d&FirstName=%s&MiddleName=%s&LastName=%s&PhoneNumber=%s"
                         "&CellPhone=%s&Email=%s&Ada=%d&Exempt=%d&ThreatLevel=%d";
constexpr char kFormat[] = "&FormatNo=%d&Name=%s&Default=%d";
constexpr char kCard[] = "&CardNo=%d&UserNo=%d&FormatNo=%d&FormatName=%s&CardNumber=%s"
                         "&KeyNumber=%d&CardStatus=%d&CardType=%d&NeverExpire=%d&ActDate=%s"
                         "&ExpDate=%s";
constexpr char kDoor[] = "&DoorNo=%d&Name=%s&Status=%d";
constexpr char kCode[] = "&Code=%d&Desc=%s";
constexpr char kThreat[] = "&Level=%d&Desc=%s";

/// A row has the fields of a single answer, without the "&" before the first.
constexpr const char *AsRow(const char *answer)
{
    return answer + 1;
}

/// The commands up to those of the users, in the order of the table.
std::vector<Command> FirstCommands()
{
    return {
        {"Hello", {}, 0, {}, "&Key=%d"},
        {"Login", {}, 0, {Text("Username", 32), Text("Password", 68)}, "", nullptr, 15107},
        {"Heartbeat", {}, 0, {}},
        {"SetEvent", {}, 0, {{"Enable"}}},
        {"GetEventLog", {}, 0, {{"EventNo"}}, kEvent},
        {"GetEventLogEx",
         {},
         0,
         Paged({{"EventNo"},
                {"FromTime", Kind::Time},
                {"ToTime", Kind::Time},
                {"DeviceType"},
                {"DevicePort"},
                Text("DeviceName", 32),
                {"EventCode"},
                Text("EventDesc", 64),
                {"CardNo"},
                {"UserNo"},
                Text("UserName", 32),
                {"VideoTag"}}),
         kList,
         AsRow(kEvent)},
        {"GetEventCode", {}, 0, {{"Code"}}, kCode},
        {"GetEventCodeEx", {}, 0, Paged({{"Code"}, Text("Desc", 64)}), kList, AsRow(kCode)},
        {"GetLiveVideoInfo", {}, 0, {{"DoorNo"}}, kVideo},
        {"GetPlayVideoInfo", {}, 0, {{"VideoTag"}, {"EventTime", Kind::Time}}, kVideo},
        {"GetDoorInfo", AuthDoors, kView, {{"DoorNo"}}, kDoor},
        {"GetDoorInfoEx", AuthDoors, kView, Paged({{"DoorNo"}, Text("Name", 32)}), kList,
         AsRow(kDoor)},
        {"GetUserInfo", AuthUsers, kView, {{"UserNo"}}, kUser},
        {"GetUserInfoEx", AuthUsers, kView, Paged(With({"UserNo"}, UserKeys())), kList,
         AsRow(kUser)},
        {"SetUserInfo", AuthUsers, kChange, With(Required({"UserNo"}), NewUserKeys()), "", nullptr,
         10303},
        {"AddUserInfo", AuthUsers, kAdd, NewUserKeys(), "", nullptr, 10301},
        {"DelUserInfo", AuthUsers, kChange, {{"UserNo"}}, "", nullptr, 10302},
        {"GetUserImage", AuthUsers, kView, {{"UserNo"}}, "&FileName=%s&Size=%d"},
        {"SetUserImage",
         AuthUsers,
         kChange,
         {{"UserNo"}, Text("FileName", 1024), {"Size"}},
         "",
         nullptr,
         10303},
    };
}

/// The rest of the table.
std::vector<Command> OtherCommands()
{
    return {
        {"GetCardFormat", AuthCardFormats, kView, {{"FormatNo"}}, kFormat},
        {"GetCardFormatEx", AuthCardFormats, kView, Paged({}), kList, AsRow(kFormat)},
        {"GetCardInfo", AuthCards, kView, {{"CardNo"}}, kCard},
        {"GetCardInfoEx", AuthCards, kView, Paged({{"UserNo"}}), kList, AsRow(kCard)},
        {"SetCardInfo", AuthCards, kChange, With(Required({"CardNo"}), CardKeys()), "", nullptr,
         10403},
        {"AddCardInfo", AuthCards, kAdd, CardKeys(), "", nullptr, 10401},
        {"DelCardInfo", AuthCards, kChange, {{"CardNo"}}, "", nullptr, 10402},
        {"GetAccessLevel",
         AuthAccessLevels,
         kView,
         {{"SelectType"}, {"LevelNo"}},
         "&LevelNo=%d&Name=%s"},
        {"GetAccessLevelEx", AuthAccessLevels, kView, Paged({{"SelectType"}}), kList,
         "SelectType=%d&LevelNo=%d&Name=%s"},
        {"GetCardAccessLevel", AuthCards, kView, {{"CardNo"}}, "&SelectType=%d&AccessLevelNo=%s"},
        {"SetCardAccessLevel",
         AuthCards,
         kChange,
         {{"CardNo"}, {"SelectType"}, Text("AccessLevelNo", 1024)},
         "",
         nullptr,
         10403},
        {"GetThreatInfo", AuthThreatInfo, kView, {{"Level"}}, kThreat},
        {"GetThreatInfoEx", AuthThreatInfo, kView, Paged({}), kList, AsRow(kThreat)},
        {"GetDoorLock", AuthDoorLock, kView, {{"Port"}}, kStatus},
        {"SetDoorLock", AuthDoorLock, kChange, {{"Port"}, {"Control"}}, "", nullptr, 11212},
        {"GetAuxOutput", AuthAuxOutput, kView, {{"Port"}}, kStatus},
        {"SetAuxOutput", AuthAuxOutput, kChange, {{"Port"}, {"Control"}}, "", nullptr, 11415},
        {"GetThreatLevel", AuthThreatLevel, kView, {}, "&ThreatLevel=%d"},
        {"SetThreatLevel", AuthThreatLevel, kChange, {{"ThreatLevel"}}, "", nullptr, 10803},
    };
}

std::vector<Command> MakeCommands()
{
    std::vector<Command> commands = FirstCommands();
    const std::vector<Command> others = OtherCommands();
    commands.insert(commands.end(), others.begin(), others.end());
    return commands;
}

bool EndsWith(std::string_view text, std::string_view word)
{
    return text.size() >= word.size() && IsSame(text.substr(text.size() - word.size()), word);
}

Value ValueOf(const Key &key, std::string_view text)
{
    const auto inSeconds = [](const ModelTime &time) {
        return time.IsCertain ? Value(time.Seconds) : Value::Anything();
    };
    switch (key.Is) {
    case Kind::Text:
        return Value(text.substr(0, key.Size));
    case Kind::Date:
        return inSeconds(DateIn(text));
    case Kind::Time:
        return inSeconds(TimeIn(text));
    case Kind::Number:
        break;
    }
    return Value(NumberIn(text));
}

/// Whether a text is a number as the agent writes it.
bool IsNumber(std::string_view text)
{
    std::array<char, 16> digits;
    const auto written =
        std::to_chars(digits.data(), digits.data() + digits.size(), NumberIn(text));
    return IsEqual(text, {digits.data(), static_cast<std::size_t>(written.ptr - digits.data())});
}

} // namespace

std::span<const Command> Commands()
{
    static const auto *const commands = new std::vector<Command>(MakeCommands());
    return *commands;
}

const Command *FindCommand(std::string_view line, bool isLoggedIn)
{
    const std::string_view text = line.substr(0, line.find('\0'));
    const std::span<const Command> commands = Commands();
    const Command *found = nullptr;
    std::size_t count = isLoggedIn ? commands.size() : kCommandsBeforeLogin;
    // The first command of the table counts, wherever in the line it is.
    for (std::size_t end = text.find('?'); end != std::string_view::npos;
         end = text.find('?', end + 1))
        for (std::size_t i = 0; i < count; ++i)
            if (EndsWith(text.substr(0, end), commands[i].Name)) {
                found = &commands[i];
                count = i;
            }
    return found;
}

bool Value::Predicts(const Value &other) const
{
    return !isCertain_ ||
           (isText_ == other.isText_ && number_ == other.number_ && IsEqual(text_, other.text_));
}

std::string Value::Shown() const
{
    return isText_ ? std::string(text_) : std::to_string(number_);
}

Fields::Fields(std::initializer_list<Field> fields)
{
    for (const Field &field : fields)
        Add(field.Name, field.Value);
}

void Fields::Add(std::string_view name, const Value &value)
{
    fields_.at(count_++) = {name, value};
}

const Value &Fields::operator[](std::string_view name) const
{
    const std::size_t found = Find(name);
    Require(found < count_, name);
    return fields_.at(found).Value;
}

Value &Fields::operator[](std::string_view name)
{
    const std::size_t found = Find(name);
    Require(found < count_, name);
    return fields_.at(found).Value;
}

std::size_t Fields::Find(std::string_view name) const
{
    std::size_t i = 0;
    while (i < count_ && !IsEqual(fields_.at(i).Name, name))
        ++i;
    return i;
}

void ReadFields(const Command &command, std::string_view line, Fields *fields)
{
    fields->Clear();
    for (const Key &key : command.Keys)
        fields->Add(key.Name, key.Is == Kind::Text ? Value("") : Value(0));
    Message message(line);
    for (Message::Pair pair; message.Next(&pair);)
        for (const Key &key : command.Keys)
            if (IsSame(pair.Key, key.Name))
                (*fields)[key.Name] = ValueOf(key, pair.Value);
}

bool IsIncomplete(const Command &command, const Fields &fields)
{
    return std::any_of(command.Keys.begin(), command.Keys.end(), [&fields](const Key &key) {
        return key.IsRequired && fields[key.Name].IsEmpty();
    });
}

bool HasForm(std::string_view text, std::string_view form)
{
    for (;;) {
        const std::size_t mark = form.find('%');
        const std::string_view literal = form.substr(0, mark);
        if (mark == std::string_view::npos ? !IsEqual(text, literal) : !StartsWith(text, literal))
            return false;
        if (mark == std::string_view::npos)
            return true;
        const bool isNumber = form[mark + 1] == 'd';
        text.remove_prefix(mark);
        form.remove_prefix(mark + 2);
        // A value ends where the form's next literal text begins.
        const std::string_view next = form.substr(0, form.find('%'));
        const std::size_t length = next.empty() ? text.size() : text.find(next);
        if (length == std::string_view::npos)
            return false;
        const std::string_view value = text.substr(0, length);
        if (isNumber && !IsNumber(value))
            return false;
        text.remove_prefix(length);
    }
}

} // namespace nimbra::fuzz
