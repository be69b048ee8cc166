#include "simulator/panel/SamplePanel.h"
#include "simulator/panel/Sqlite.h"

#include <algorithm>
#include <cctype>
#include <sstream>

namespace nimbra::panel {

static constexpr char kSchema[] = R"(
CREATE TABLE Controller (No INTEGER PRIMARY KEY, Name TEXT, ID TEXT, Password TEXT);
CREATE TABLE WebUser (No INTEGER PRIMARY KEY, ID TEXT NOT NULL, Password TEXT, Name TEXT,
    UserRole INTEGER NOT NULL DEFAULT 0);
CREATE TABLE UserRole (No INTEGER PRIMARY KEY, Name TEXT);
CREATE TABLE UserRoleTable (No INTEGER PRIMARY KEY, UserRole INTEGER NOT NULL,
    FormIndex INTEGER NOT NULL, Authority INTEGER);
CREATE TABLE Cloud (No INTEGER PRIMARY KEY, Enabled INTEGER DEFAULT 0, ServerIP TEXT,
    Port INTEGER, DevicePort INTEGER, DeviceID TEXT, StartTime INTEGER, CheckTime INTEGER);
CREATE TABLE User (Site INTEGER NOT NULL DEFAULT 1, No INTEGER PRIMARY KEY, FirstName TEXT,
    MiddleName TEXT, LastName TEXT NOT NULL, Phone TEXT, CellPhone TEXT, Email TEXT, Ada INTEGER,
    Exempt INTEGER, ThreatLevel INTEGER, ImageFile TEXT);
CREATE INDEX UserLastName ON User (LastName);
CREATE TABLE CardFormat (Site INTEGER NOT NULL DEFAULT 1, No INTEGER PRIMARY KEY, Name TEXT,
    IsDefault INTEGER, TotalBits INTEGER);
CREATE TABLE Card (Site INTEGER NOT NULL DEFAULT 1, No INTEGER PRIMARY KEY,
    UserNo INTEGER NOT NULL, CardFormatNo INTEGER, CardNo TEXT, KeyNumber INTEGER,
    CardStatus INTEGER, CardType INTEGER, NeverExpire INTEGER, ActDate INTEGER, ExpDate INTEGER,
    SelectType INTEGER);
CREATE INDEX CardUser ON Card (UserNo);
CREATE INDEX CardNumber ON Card (CardNo);
CREATE TABLE CardAccessLevel (Site INTEGER NOT NULL DEFAULT 1, No INTEGER PRIMARY KEY,
    CardNo INTEGER NOT NULL, AccessLevelNo INTEGER NOT NULL);
CREATE INDEX CardAccessLevelCard ON CardAccessLevel (CardNo);
CREATE TABLE AccessLevel (Site INTEGER NOT NULL DEFAULT 1, No INTEGER PRIMARY KEY, Name TEXT);
CREATE TABLE GroupTable (Site INTEGER NOT NULL DEFAULT 1, GroupKind INTEGER NOT NULL,
    No INTEGER NOT NULL, Name TEXT, PRIMARY KEY (GroupKind, No));
CREATE TABLE EventCode (EventCode INTEGER PRIMARY KEY, Name TEXT);
CREATE TABLE DBQueryInfo (Idseq INTEGER, QueryData TEXT, DbKind INTEGER);
CREATE TABLE Door (Site INTEGER NOT NULL DEFAULT 1, No INTEGER PRIMARY KEY, Name TEXT,
    Disable INTEGER NOT NULL DEFAULT 0, DoorContactState INTEGER);
CREATE TABLE RelayStatus (Type INTEGER NOT NULL, No INTEGER NOT NULL, RelayOn INTEGER,
    PRIMARY KEY (Type, No));
CREATE TABLE ThreatLevel (Level INTEGER PRIMARY KEY, ThreatName TEXT);
CREATE TABLE Threat (No INTEGER PRIMARY KEY, ThreatStatus INTEGER);
CREATE TABLE DVR (No INTEGER PRIMARY KEY, Name TEXT, Type INTEGER, IP TEXT, LivePort INTEGER,
    HttpID TEXT, HttpPassword TEXT);
CREATE TABLE DVRChannel (No INTEGER PRIMARY KEY, DvrNo INTEGER NOT NULL, DoorNo INTEGER,
    Channel INTEGER, CameraID TEXT);
)";

/// A blank value of a row of an odd number becomes NULL.
static std::optional<int> Blank(int no, int value)
{
    return no % 2 != 0 && value == 0 ? std::optional<int>() : value;
}

static std::optional<std::string> Blank(int no, const std::string &value)
{
    return no % 2 != 0 && value.empty() ? std::optional<std::string>() : value;
}

static std::string LowerCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return text;
}

static void FillAccounts(SqliteFile &file)
{
    SqliteStatement(file, "INSERT INTO Controller VALUES (1, 'Main Panel', ?, ?)")
        .Execute(std::string(kController.Id), PasswordDigest(kController.Password));

    SqliteStatement insert(
        file, "INSERT INTO WebUser (ID, Password, Name, UserRole) VALUES (?, ?, ?, ?)");
    const auto add = [&insert](const SampleLogin &login, Role role,
                               const std::optional<std::string> &digest) {
        insert.Execute(std::string(login.Id), digest, std::string("Web ") + login.Id,
                       static_cast<int>(role));
    };
    const auto addPlain = [&add](const SampleLogin &login, Role role) {
        add(login, role, PasswordDigest(login.Password));
    };
    addPlain(kOperator, Role::Operator);
    addPlain(kViewer, Role::Viewer);
    addPlain(kGuard, Role::Guard);
    addPlain(kClerk, Role::Clerk);
    addPlain(kNobody, Role::Nobody);
    addPlain(kOdd, Role::Odd);
    addPlain(kWebAdmin, Role::Viewer);
    add(kLowerCase, Role::Operator, LowerCase(PasswordDigest(kLowerCase.Password)));
    add(kLocked, Role::Operator, std::nullopt);
}

static void FillRoles(SqliteFile &file)
{
    file.Run("INSERT INTO UserRole VALUES (1, 'Operator'), (2, 'Viewer'), (3, 'Nobody'),"
             " (4, 'Guard'), (5, 'Odd'), (6, 'Clerk')");
    struct Right
    {
        Role Owner;
        int FormIndex;
        std::optional<int> Authority;
    };
    const std::vector<Right> rights = {
        {Role::Operator, 3, 0},  {Role::Operator, 3, 1},      {Role::Operator, 3, 2},
        {Role::Operator, 4, 0},  {Role::Operator, 4, 1},      {Role::Operator, 4, 2},
        {Role::Operator, 5, 0},  {Role::Operator, 5, 1},      {Role::Operator, 5, 2},
        {Role::Operator, 6, 0},  {Role::Operator, 6, 1},      {Role::Operator, 6, 2},
        {Role::Operator, 10, 0}, {Role::Operator, 10, 3},     {Role::Operator, 11, 0},
        {Role::Operator, 11, 2}, {Role::Operator, 41, 0},     {Role::Operator, 41, 3},
        {Role::Operator, 1, 24}, {Role::Operator, 1, 25},

        {Role::Viewer, 3, 0},    {Role::Viewer, 4, 0},        {Role::Viewer, 5, 0},
        {Role::Viewer, 6, 0},    {Role::Viewer, 10, 0},       {Role::Viewer, 11, 0},
        {Role::Viewer, 41, 0},

        {Role::Guard, 41, 0},    {Role::Guard, 1, 24},

        {Role::Clerk, 3, 0},     {Role::Clerk, 3, 1},         {Role::Clerk, 4, 0},
        {Role::Clerk, 4, 1},

        {Role::Odd, 41, 1},      {Role::Odd, 41, 2},          {Role::Odd, 10, 1},
        {Role::Odd, 10, 2},      {Role::Odd, 11, 1},          {Role::Odd, 11, 3},
        {Role::Odd, 1, 0},       {Role::Odd, 1, 23},          {Role::Odd, 1, 26},
        {Role::Odd, 3, 3},       {Role::Odd, 4, -1},          {Role::Odd, 2, 0},
        {Role::Odd, 99, 2},      {Role::Odd, 5, std::nullopt}};
    SqliteStatement insert(
        file, "INSERT INTO UserRoleTable (UserRole, FormIndex, Authority) VALUES (?, ?, ?)");
    for (const Right &right : rights)
        insert.Execute(static_cast<int>(right.Owner), right.FormIndex, right.Authority);
}

static void FillUsers(SqliteFile &file, int users)
{
    SqliteStatement insert(file, "INSERT INTO User VALUES (1,?,?,?,?,?,?,?,?,?,?,?)");
    for (int no = 1; no <= users; ++no) {
        const SampleUser user = ExpectedUser(no);
        insert.Execute(no, user.FirstName, Blank(no, user.MiddleName), user.LastName,
                       Blank(no, user.Phone), Blank(no, user.CellPhone), Blank(no, user.Email),
                       Blank(no, user.Ada), Blank(no, user.Exempt), Blank(no, user.ThreatLevel),
                       Blank(no, user.ImageFile));
    }
}

static void FillCards(SqliteFile &file, const PanelSize &size)
{
    SqliteStatement format(file, "INSERT INTO CardFormat VALUES (1, ?, ?, ?, 26)");
    for (const SampleCardFormat &entry : kCardFormats)
        format.Execute(entry.No, std::string(entry.Name), Blank(entry.No, entry.IsDefault));

    SqliteStatement insert(file, "INSERT INTO Card VALUES (1,?,?,?,?,?,?,?,?,?,?,?)");
    SqliteStatement level(file,
                          "INSERT INTO CardAccessLevel (CardNo, AccessLevelNo) VALUES (?, ?)");
    for (int no = 1; no <= size.Cards; ++no) {
        const SampleCard card = ExpectedCard(no, size);
        insert.Execute(no, card.UserNo, card.FormatNo, card.CardNumber, Blank(no, card.KeyNumber),
                       Blank(no, card.CardStatus), Blank(no, card.CardType),
                       Blank(no, card.NeverExpire), Blank(no, card.ActDate),
                       Blank(no, card.ExpDate), card.SelectType);
        std::istringstream levels(card.AccessLevels);
        for (int levelNo = 0; levels >> levelNo;)
            level.Execute(no, levelNo);
    }
}

static void FillAccessLevels(SqliteFile &file)
{
    SqliteStatement level(file, "INSERT INTO AccessLevel (Name) VALUES (?)");
    for (const char *name : kAccessLevels)
        level.Execute(std::string(name));
    SqliteStatement group(file, "INSERT INTO GroupTable VALUES (1, ?, ?, ?)");
    for (const SampleGroup &entry : kGroups)
        group.Execute(entry.Kind, entry.No, std::string(entry.Name));
}

static void FillDoors(SqliteFile &file, int doors)
{
    // Relays of type 1, which the agent has nothing to do with, have the same numbers.
    SqliteStatement door(file, "INSERT INTO Door VALUES (1, ?, ?, ?, ?)");
    SqliteStatement relay(file, "INSERT INTO RelayStatus VALUES (?, ?, ?)");
    for (int no = 1; no <= doors; ++no) {
        const SampleDoor entry = ExpectedDoor(no);
        door.Execute(no, entry.Name, entry.Disabled ? 1 : 0, Blank(no, entry.ContactState));
        relay.Execute(1, no, 1);
        if (entry.HasRelay)
            relay.Execute(3, no, entry.RelayOn);
    }
    const int outputs = static_cast<int>(kAuxOutputs.size());
    for (int no = 1; no < outputs; ++no)
        relay.Execute(2, no, kAuxOutputs[static_cast<std::size_t>(no - 1)]);
    relay.Execute(2, outputs, std::optional<int>());
}

static void FillThreats(SqliteFile &file)
{
    SqliteStatement level(file, "INSERT INTO ThreatLevel (ThreatName) VALUES (?)");
    for (const char *name : kThreatLevels)
        level.Execute(std::string(name));
    SqliteStatement(file, "INSERT INTO Threat VALUES (1, ?)").Execute(kThreatInForce);
}

static void FillRecorders(SqliteFile &file)
{
    SqliteStatement recorder(file, "INSERT INTO DVR VALUES (?,?,?,?,?,?,?)");
    for (const SampleRecorder &entry : kRecorders)
        recorder.Execute(entry.No, std::string(entry.Name), entry.Type, std::string(entry.Address),
                         entry.LivePort, std::string(entry.Username), std::string(entry.Password));
    SqliteStatement channel(file, "INSERT INTO DVRChannel VALUES (?,?,?,?,?)");
    for (const SampleChannel &entry : kChannels)
        channel.Execute(entry.No, entry.RecorderNo, Blank(entry.No, entry.DoorNo), entry.Channel,
                        Blank(entry.No, std::string(entry.CameraId)));
}

static void FillEventCodes(SqliteFile &file)
{
    SqliteStatement insert(file, "INSERT INTO EventCode VALUES (?, ?)");
    for (const SampleEventCode &entry : kEventCodes)
        insert.Execute(entry.Code, entry.Name == nullptr ? std::optional<std::string>()
                                                         : std::string(entry.Name));
}

void FillMainDatabase(const std::filesystem::path &path, const PanelOptions &options)
{
    SqliteFile file(path);
    file.Run("PRAGMA synchronous=OFF; PRAGMA journal_mode=MEMORY; BEGIN");
    file.Run(kSchema);
    FillAccounts(file);
    FillRoles(file);
    FillUsers(file, options.Size.Users);
    FillCards(file, options.Size);
    FillAccessLevels(file);
    FillDoors(file, options.Size.Doors);
    FillThreats(file);
    FillRecorders(file);
    FillEventCodes(file);
    SqliteStatement(file, "INSERT INTO Cloud (No, Enabled, ServerIP, Port, DevicePort, DeviceID)"
                          " VALUES (1, ?, 'old-cloud.nimbra.example', 8443, ?, '')")
        .Execute(options.CloudEnabled ? 1 : 0, kDevicePort);
    file.Run("COMMIT");
}

} // namespace nimbra::panel
