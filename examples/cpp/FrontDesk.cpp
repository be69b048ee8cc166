// Lists the doors of a panel, unlocks one, adds a user with a card, and follows the event log:
// NIMBRA_PASSWORD=... front-desk HOST USER DOOR FIRST-NAME LAST-NAME CARD-NUMBER

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <nimbra-client/ResultMessage.h>
#include <nimbra-client/Session.h>

namespace client = nimbra::client;

namespace {

constexpr int kUnlockForAMoment = 2;
constexpr int kRemoteLogin = 15107;

/// Ends the program when the panel refuses a request, or fails.
void Require(int result, const std::string &command)
{
    if (result != 0)
        throw std::runtime_error(client::ResultMessage(command, result));
}

/// The rows of a list. An empty list has the same result code as a failure.
std::vector<client::Record> Rows(client::Session &session, const client::Request &request,
                                 const client::ListOptions &options = {})
{
    std::vector<client::Record> rows;
    const auto keep = [&rows](const client::Record &row) {
        rows.push_back(row);
        return true;
    };
    Require(session.List(request, keep, options), request.Word());
    return rows;
}

void Change(client::Session &session, const client::Request &request)
{
    Require(session.Execute(request).Result, request.Word());
}

void PrintDoors(client::Session &session)
{
    for (const client::Record &door : Rows(session, client::Request("GetDoorInfoEx")))
        std::printf("Door %d: %s, %s\n", door.Number("DoorNo"), door.Text("Name").c_str(),
                    door.Number("Status") != 0 ? "unlocked" : "locked");
}

/// Adds a user with a card of the default format; the number of the user.
std::int32_t AddUser(client::Session &session, const std::string &firstName,
                     const std::string &lastName, const std::string &cardNumber)
{
    const auto withName = [&](const char *word) {
        return client::Request(word).Text("FirstName", firstName).Text("LastName", lastName);
    };
    Change(session, withName("AddUserInfo"));
    // The response has no number: the user is the newest of this name.
    std::int32_t userNo = 0;
    for (const client::Record &user : Rows(session, withName("GetUserInfoEx")))
        userNo = std::max(userNo, user.Number("UserNo"));
    std::int32_t formatNo = 0;
    for (const client::Record &format : Rows(session, client::Request("GetCardFormatEx")))
        if (format.Number("Default") == 1)
            formatNo = format.Number("FormatNo");
    Change(session, client::Request("AddCardInfo")
                        .Number("UserNo", userNo)
                        .Number("FormatNo", formatNo)
                        .Text("CardNumber", cardNumber)
                        .Number("NeverExpire", 1));
    return userNo;
}

std::int32_t NewestEvent(client::Session &session)
{
    client::ListOptions one;
    one.Limit = 1;
    return Rows(session, client::Request("GetEventLogEx"), one).at(0).Number("EventNo");
}

/// Prints the next `count` events after the one with this number, oldest first, without logins.
void FollowEvents(client::Session &session, std::int32_t last, int count)
{
    while (count > 0) {
        std::vector<client::Record> events;
        const auto keepNew = [&events, last](const client::Record &event) {
            const bool isNew = event.Number("EventNo") > last;
            if (isNew)
                events.push_back(event);
            return isNew; // the list is newest first
        };
        Require(session.List(client::Request("GetEventLogEx"), keepNew), "GetEventLogEx");
        std::reverse(events.begin(), events.end());
        for (const client::Record &event : events) {
            last = event.Number("EventNo");
            if (count == 0 || event.Number("EventCode") == kRemoteLogin)
                continue;
            std::printf("%s %s (%s)\n", event.Text("EventTime").c_str(),
                        event.Text("EventDesc").c_str(), event.Text("UserName").c_str());
            --count;
        }
        std::fflush(stdout);
        if (count > 0)
            std::this_thread::sleep_for(std::chrono::seconds(1));
    }
}

void Run(const std::vector<std::string> &arguments, const char *password, std::int32_t doorNo)
{
    client::SessionOptions options;
    options.Host = arguments[0];
    client::Session session(options);
    Require(session.Login(arguments[1], password), "Login");
    PrintDoors(session);
    const std::int32_t last = NewestEvent(session);

    Change(
        session,
        client::Request("SetDoorLock").Number("Port", doorNo).Number("Control", kUnlockForAMoment));
    std::printf("Door %d is unlocked for a moment.\n", doorNo);

    const std::string &firstName = arguments[3];
    const std::string &lastName = arguments[4];
    const std::string &cardNumber = arguments[5];
    const std::int32_t userNo = AddUser(session, firstName, lastName, cardNumber);
    std::printf("User %d: %s %s, card %s\n", userNo, firstName.c_str(), lastName.c_str(),
                cardNumber.c_str());

    constexpr int kOwnChanges = 3;
    FollowEvents(session, last, kOwnChanges);
}

} // namespace

int main(int argc, char **argv)
{
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const char *password = std::getenv("NIMBRA_PASSWORD");
    constexpr std::size_t kArguments = 6;
    std::int32_t doorNo = 0;
    const auto isNumber = [&doorNo](const std::string &text) {
        const char *end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(text.data(), end, doorNo);
        return error == std::errc() && stop == end;
    };
    if (arguments.size() != kArguments || password == nullptr || !isNumber(arguments[2])) {
        std::fprintf(stderr,
                     "Usage: NIMBRA_PASSWORD=... %s HOST USER DOOR FIRST-NAME LAST-NAME "
                     "CARD-NUMBER\n",
                     argv[0]);
        return 2;
    }
    try {
        Run(arguments, password, doorNo);
        return 0;
    } catch (const client::ConnectionError &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 3;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
