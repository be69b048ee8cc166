#include "bench/baseline/BaselineMethods.h"
#include "data/DataManager.h"
#include "data/Database.h"
#include "simulator/panel/SamplePanel.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

/// Times the methods of DataManager, or what the baseline does in their place, on a sample panel in
/// the panel's own paths: to be run in a sandbox. A process times one of the two: the agent changes
/// settings of SQLite, which has one set of them in a process.
///
///   nimbra-bench-methods prepare    creates the panel, requires that both run the same statements,
///                                   and prints a line "KIND NAME" for each method
///   nimbra-bench-methods agent|baseline [OPTION OF GOOGLE BENCHMARK]...
namespace nimbra::bench {

namespace {

namespace fs = std::filesystem;

/// What a method does, and therefore how it is repeated.
enum class Kind
{
    Computation, ///< uses no database
    Query,
    Change,  ///< a fixed number of times: the tables grow, for both alike
    Command, ///< the same, but often: it starts a program, and no two starts cost the same
    Slow,    ///< once, and its pause counts
};

struct Method
{
    const char *Name;
    Kind Repeats;
    std::function<bool(int turn)> Run;
};

const char *NameOf(Kind kind)
{
    switch (kind) {
    case Kind::Computation:
        return "computation";
    case Kind::Query:
        return "query";
    case Kind::Change:
        return "change";
    case Kind::Command:
        return "command";
    case Kind::Slow:
        break;
    }
    return "slow";
}

/// How often a method is called in a round; 0 for as often as a given time takes.
int Calls(Kind kind)
{
    switch (kind) {
    case Kind::Computation:
    case Kind::Query:
        return 0;
    case Kind::Change:
        return 60;
    case Kind::Command:
        return 250;
    case Kind::Slow:
        break;
    }
    return 1;
}

/// The main database of the panel, and its copy before any change.
fs::path MainDatabase()
{
    return panel::PanelPaths("/").MainDatabase;
}
fs::path Pristine()
{
    return MainDatabase().string() + ".pristine";
}

UserInfo BenchUser()
{
    UserInfo user;
    user.UserNo = 7;
    user.FirstName.Assign("Ada");
    user.LastName.Assign("Bench");
    user.PhoneNumber.Assign("555-0100");
    user.Email.Assign("ada@example.com");
    user.Ada = 1;
    user.ThreatLevel = 2;
    return user;
}

CardInfo BenchCard(const std::string &cardNumber)
{
    CardInfo card;
    card.No = 7;
    card.UserNo = 7;
    card.FormatNo = 1;
    card.CardNumber.Assign(cardNumber);
    card.KeyNumber = 1;
    card.NeverExpire = 1;
    card.ActDate = 1700000000;
    card.ExpDate = 1800000000;
    return card;
}

/// A method that fills one record, found by its number.
template <class Record>
std::function<bool(int)> One(bool (DataManager::*method)(Record *), std::int32_t Record::*number,
                             std::int32_t value)
{
    return [=](int) {
        Record record;
        record.*number = value;
        return (DataManager::GetInstance()->*method)(&record);
    };
}

/// A method that lists rows, without a filter.
template <class Filter, class Record>
std::function<bool(int)> List(bool (DataManager::*method)(Filter *, RowList<Record> *))
{
    return [=](int) {
        Filter filter;
        RowList<Record> rows;
        return (DataManager::GetInstance()->*method)(&filter, &rows);
    };
}

/// A method that returns one number.
std::function<bool(int)> Number(bool (DataManager::*method)(std::int32_t, std::int32_t *))
{
    return [=](int) {
        std::int32_t status = 0;
        return (DataManager::GetInstance()->*method)(1, &status);
    };
}

std::vector<Method> AccountMethods()
{
    return {{"HashPassword", Kind::Computation,
             [](int) { return !DataManager::HashPassword("operate!1").IsEmpty(); }},
            {"CheckPassword", Kind::Query,
             [](int) {
                 AuthorityRecord authority;
                 return DataManager::GetInstance()->CheckPassword(
                     FixedText<32>("operator"), FixedText<68>("operate!1"), &authority);
             }},
            {"AddDBQueryInfo", Kind::Change,
             [](int) {
                 DataManager::GetInstance()->AddDBQueryInfo(
                     "DELETE FROM Card WHERE CardNo='bench'");
                 return true;
             }},
            {"WriteAuditLog", Kind::Command, [](int) {
                 DataManager::GetInstance()->WriteAuditLog(FixedText<32>("127.0.0.1"),
                                                           FixedText<32>("admin"), 15107);
                 return true;
             }}};
}

std::vector<Method> EventAndVideoMethods()
{
    return {
        {"GetEventLog", Kind::Query, One(&DataManager::GetEventLog, &EventInfo::EventNo, 20)},
        {"GetEventLogEx", Kind::Query, List(&DataManager::GetEventLogEx)},
        {"GetEventCode", Kind::Query, One(&DataManager::GetEventCode, &EventCodeInfo::Code, 10301)},
        {"GetEventCodeEx", Kind::Query, List(&DataManager::GetEventCodeEx)},
        {"GetLiveVideoInfo", Kind::Query,
         One(&DataManager::GetLiveVideoInfo, &VideoInfo::DoorNo, 1)},
        {"GetPlayVideoInfo", Kind::Query, [](int) {
             VideoInfo video;
             video.VideoTag = 1;
             video.EventTime = 1700000000;
             return DataManager::GetInstance()->GetPlayVideoInfo(&video);
         }}};
}

std::vector<Method> DoorMethods()
{
    DataManager *const data = DataManager::GetInstance();
    return {{"GetDoorInfo", Kind::Query, One(&DataManager::GetDoorInfo, &DoorInfo::DoorNo, 1)},
            {"GetDoorInfoEx", Kind::Query, List(&DataManager::GetDoorInfoEx)},
            {"GetDoorLock", Kind::Query, Number(&DataManager::GetDoorLock)},
            {"SetDoorLock", Kind::Slow, [data](int) { return data->SetDoorLock(1, 0); }},
            {"GetAuxOutput", Kind::Query, Number(&DataManager::GetAuxOutput)},
            {"SetAuxOutput", Kind::Command, [data](int) { return data->SetAuxOutput(1, 1); }},
            {"GetThreatInfo", Kind::Query, One(&DataManager::GetThreatInfo, &ThreatInfo::Level, 1)},
            {"GetThreatInfoEx", Kind::Query, List(&DataManager::GetThreatInfoEx)},
            {"GetThreatLevel", Kind::Query,
             [data](int) {
                 std::int32_t level = 0;
                 return data->GetThreatLevel(&level);
             }},
            {"SetThreatLevel", Kind::Change, [data](int) { return data->SetThreatLevel(2); }}};
}

std::vector<Method> UserMethods()
{
    DataManager *const data = DataManager::GetInstance();
    return {{"GetUserInfo", Kind::Query, One(&DataManager::GetUserInfo, &UserInfo::UserNo, 7)},
            {"GetUserInfoEx", Kind::Query, List(&DataManager::GetUserInfoEx)},
            {"SetUserInfo", Kind::Change, [data](int) { return data->SetUserInfo(BenchUser()); }},
            {"AddUserInfo", Kind::Change, [data](int) { return data->AddUserInfo(BenchUser()); }},
            {"DelUserInfo", Kind::Change,
             [data](int turn) {
                 UserInfo user;
                 user.UserNo = turn;
                 return data->DelUserInfo(user);
             }},
            {"GetUserImage", Kind::Query, One(&DataManager::GetUserImage, &UserImage::UserNo, 1)},
            {"SetUserImage", Kind::Change, [data](int) {
                 UserImage image;
                 image.UserNo = 7;
                 image.FileName.Assign("bench.jpg");
                 return data->SetUserImage(image);
             }}};
}

std::vector<Method> CardMethods()
{
    DataManager *const data = DataManager::GetInstance();
    return {{"GetCardFormat", Kind::Query,
             One(&DataManager::GetCardFormat, &CardFormatInfo::FormatNo, 1)},
            {"GetCardFormatEx", Kind::Query, List(&DataManager::GetCardFormatEx)},
            {"GetCardInfo", Kind::Query, One(&DataManager::GetCardInfo, &CardInfo::No, 7)},
            {"GetCardInfoEx", Kind::Query, List(&DataManager::GetCardInfoEx)},
            {"SetCardInfo", Kind::Change,
             [data](int) { return data->SetCardInfo(BenchCard("bench-7")); }},
            {"AddCardInfo", Kind::Change,
             [data](int turn) {
                 return data->AddCardInfo(BenchCard("bench-" + std::to_string(turn)));
             }},
            {"DelCardInfo", Kind::Change,
             [data](int turn) {
                 CardInfo card;
                 card.No = turn;
                 return data->DelCardInfo(card);
             }},
            {"GetAccessLevel", Kind::Query,
             One(&DataManager::GetAccessLevel, &AccessLevelInfo::LevelNo, 1)},
            {"GetAccessLevelEx", Kind::Query,
             [data](int) {
                 Paging page;
                 RowList<AccessLevelInfo> rows;
                 return data->GetAccessLevelEx(0, &page, &rows);
             }},
            {"GetCardAccessLevel", Kind::Query,
             One(&DataManager::GetCardAccessLevel, &CardAccessLevel::CardNo, 7)},
            {"SetCardAccessLevel", Kind::Change, [data](int) {
                 CardAccessLevel levels;
                 levels.CardNo = 7;
                 levels.SelectType = 1;
                 levels.AccessLevelNo.Assign("1 2");
                 return data->SetCardAccessLevel(levels);
             }}};
}

std::vector<Method> AllMethods()
{
    std::vector<Method> all;
    for (const auto &family :
         {AccountMethods(), EventAndVideoMethods(), DoorMethods(), UserMethods(), CardMethods()})
        all.insert(all.end(), family.begin(), family.end());
    return all;
}

void (*BaselineOf(const std::string &name))(int turn)
{
    for (const BaselineMethod *method = kBaselineMethods; method->Name != nullptr; ++method)
        if (name == method->Name)
            return method->Run;
    throw std::runtime_error("the baseline has no " + name);
}

void CreatePanel()
{
    panel::PanelOptions options;
    options.Size = {1000, 1000, 1000, 16};
    options.CommandTool = NIMBRA_COMMAND_TOOL_PATH;
    panel::CreatePanel("/", options);
    fs::copy_file(MainDatabase(), Pristine(), fs::copy_options::overwrite_existing);
}

void Restore()
{
    fs::copy_file(Pristine(), MainDatabase(), fs::copy_options::overwrite_existing);
}

/// The statements that SQLite has run since the list was cleared, in order.
std::vector<std::string> ran;

int Note(unsigned /*kind*/, void * /*context*/, void *statement, void *text)
{
    char *expanded = sqlite3_expanded_sql(static_cast<sqlite3_stmt *>(statement));
    ran.emplace_back(expanded != nullptr ? expanded : static_cast<const char *>(text));
    sqlite3_free(expanded);
    return 0;
}

int NoteAllOf(sqlite3 *database, char ** /*error*/, const void * /*api*/)
{
    return sqlite3_trace_v2(database, SQLITE_TRACE_STMT, &Note, nullptr);
}

std::vector<std::string> StatementsOf(const std::function<void()> &call)
{
    Restore();
    ran.clear();
    call();
    return ran;
}

/// Throws unless the agent and the baseline run the same statements in the same order.
void CompareStatements(const std::vector<Method> &methods)
{
    const auto entry = reinterpret_cast<void (*)()>(&NoteAllOf);
    sqlite3_auto_extension(entry);
    for (const Method &method : methods) {
        const auto agent = StatementsOf([&method] {
            if (!method.Run(1))
                throw std::runtime_error(std::string(method.Name) + " fails");
        });
        const auto baseline = StatementsOf([&method] { BaselineOf(method.Name)(1); });
        if (agent == baseline)
            continue;
        std::string difference = method.Name;
        for (const std::string &sql : agent)
            difference += "\n  agent: " + sql;
        for (const std::string &sql : baseline)
            difference += "\n  baseline: " + sql;
        throw std::runtime_error(difference);
    }
    sqlite3_cancel_auto_extension(entry);
}

void Prepare()
{
    CreatePanel();
    const std::vector<Method> methods = AllMethods();
    CompareStatements(methods);
    for (const Method &method : methods)
        std::printf("%s %s\n", NameOf(method.Repeats), method.Name);
}

void Register(const Method &method, const std::function<void(int)> &run)
{
    auto *entry = benchmark::RegisterBenchmark(method.Name, [run](benchmark::State &state) {
        int turn = 0;
        for (auto _ : state)
            run(++turn);
    });
    entry->Unit(benchmark::kMicrosecond)->Setup([](const auto &) { Restore(); });
    if (const int calls = Calls(method.Repeats); calls > 0)
        entry->Iterations(calls);
    if (method.Repeats == Kind::Slow)
        entry->UseRealTime();
}

void RegisterAgent()
{
    for (const Method &method : AllMethods())
        Register(method, [run = method.Run](int turn) { benchmark::DoNotOptimize(run(turn)); });
}

void RegisterBaseline()
{
    for (const Method &method : AllMethods())
        Register(method, BaselineOf(method.Name));
}

int Main(int argc, char **argv)
{
    try {
        const std::string mode = argc > 1 ? argv[1] : "";
        if (mode == "prepare") {
            Prepare();
            return 0;
        }
        if (mode == "agent") {
            Database::ConfigureSqlite();
            RegisterAgent();
        } else if (mode == "baseline")
            RegisterBaseline();
        else
            throw std::runtime_error("the first argument is prepare, agent or baseline");
        // Google Benchmark gets the other arguments.
        argv[1] = argv[0];
        int count = argc - 1;
        benchmark::Initialize(&count, argv + 1);
        if (benchmark::ReportUnrecognizedArguments(count, argv + 1))
            return 1;
        benchmark::RunSpecifiedBenchmarks();
        return 0;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "nimbra-bench-methods: %s\n", error.what());
        return 1;
    }
}

} // namespace

} // namespace nimbra::bench

int main(int argc, char **argv)
{
    return nimbra::bench::Main(argc, argv);
}
