#include "simulator/panel/Activity.h"

#include "simulator/panel/EventLog.h"
#include "simulator/panel/Sqlite.h"

#include <utility>
#include <vector>

namespace nimbra::panel {

constexpr int kDoorEvent = 2; ///< SampleEvent::Type
constexpr int kGranted = 10001;
constexpr int kUnknownCard = 10003;
constexpr int kExpiredCard = 10004;
constexpr int kWrongLevel = 10005;
constexpr int kNotOpened = 10007;
constexpr int kOpened = 10101;
constexpr int kClosed = 10102;
constexpr int kExitButton = 10105;

Activity::Activity(PanelPaths paths, unsigned seed) : paths_(std::move(paths)), random_(seed)
{}

void Activity::AppendNext()
{
    if (events_.empty())
        AddVisit();
    if (events_.empty())
        return;
    const SampleEvent event = events_.front();
    events_.pop_front();
    AppendEvent(paths_, event);
}

std::vector<std::string> Activity::PickRow(const std::string &query)
{
    SqliteFile file(paths_.MainDatabase);
    SqliteStatement count(file, "SELECT COUNT(*) FROM (" + query + ")");
    const int rows = count.Step() ? std::stoi(count.Row().front()) : 0;
    if (rows == 0)
        return {};
    SqliteStatement row(file, query + " LIMIT 1 OFFSET ?");
    row.Bind(1, std::uniform_int_distribution(0, rows - 1)(random_));
    return row.Step() ? row.Row() : std::vector<std::string>();
}

bool Activity::PickDoor(SampleEvent &event)
{
    const std::vector<std::string> door =
        PickRow("SELECT No, Name FROM Door WHERE Disable = 0 ORDER BY No");
    if (door.empty())
        return false;
    event.Type = kDoorEvent;
    event.Port = std::stoi(door[0]);
    event.DeviceName = door[1];
    event.VideoTag = event.Port;
    return true;
}

bool Activity::PickCardHolder(SampleEvent &event)
{
    const std::vector<std::string> holder =
        PickRow("SELECT Card.No, User.No, IFNULL(FirstName || ' ', '') || LastName,"
                " IFNULL(CardStatus, 0) = 0 AND (IFNULL(NeverExpire, 0) <> 0"
                " OR CAST(strftime('%s', 'now') AS INTEGER) BETWEEN IFNULL(ActDate, 0) AND "
                "IFNULL(ExpDate, 0))"
                " FROM Card JOIN User ON User.No = Card.UserNo ORDER BY Card.No");
    if (holder.empty())
        return false;
    event.CardNo = std::stoi(holder[0]);
    event.UserNo = std::stoi(holder[1]);
    event.UserName = holder[2];
    event.EventCode = holder[3] == "1" ? kGranted : kExpiredCard;
    return true;
}

void Activity::AddVisit()
{
    SampleEvent event{};
    if (!PickDoor(event))
        return;
    const auto add = [this](SampleEvent next, int code) {
        next.EventCode = code;
        events_.push_back(std::move(next));
    };
    const auto passThrough = [&add, atDoor = event] {
        add(atDoor, kOpened);
        add(atDoor, kClosed);
    };
    // Of twenty visits seven leave, one has an unknown card; the others show a card of the panel.
    constexpr int kVisits = 20;
    constexpr int kLeaving = 7;
    const int visit = std::uniform_int_distribution(1, kVisits)(random_);
    if (visit <= kLeaving) {
        add(event, kExitButton);
        passThrough();
    } else if (visit == kVisits || !PickCardHolder(event)) {
        add(event, kUnknownCard);
    } else if (event.EventCode == kExpiredCard) {
        add(event, kExpiredCard);
    } else if (visit == kVisits - 1) {
        add(event, kWrongLevel);
    } else if (visit == kVisits - 2) {
        add(event, kNotOpened);
    } else {
        add(event, kGranted);
        passThrough();
    }
}

} // namespace nimbra::panel
