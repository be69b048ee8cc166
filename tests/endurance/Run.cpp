#include "endurance/Run.h"

#include <algorithm>
#include <cmath>
#include <thread>

namespace nimbra::endurance {

namespace {

constexpr std::size_t kSamples = 20;

constexpr std::array kSteady = {"GetUserInfo?UserNo=3",     "GetUserInfoEx?UserNo=4",
                                "GetCardInfo?CardNo=2",     "GetCardInfoEx?UserNo=6",
                                "GetCardFormat?FormatNo=1", "GetCardFormatEx?",
                                "GetAccessLevelEx?",        "GetCardAccessLevel?CardNo=3",
                                "GetThreatInfoEx?",         "GetThreatLevel?",
                                "GetEventCode?Code=10101",  "GetEventCodeEx?",
                                "GetEventLog?EventNo=5",    "GetDoorInfoEx?",
                                "GetDoorLock?Port=2",       "GetLiveVideoInfo?DoorNo=1"};

} // namespace

Run::Run(const test::TestPanel &panel) : panel_(panel)
{}

void Run::Learn()
{
    test::ManagementClient client = test::LoggedIn();
    for (const char *request : kSteady)
        known_[request] = client.AskList(request);
}

void Run::Pause(milliseconds duration) const
{
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + duration;
    for (auto now = Clock::now(); !IsOver() && now < end; now = Clock::now())
        std::this_thread::sleep_for(std::min<Clock::duration>(end - now, milliseconds(50)));
}

void Run::Check(bool isRight, const std::string &what)
{
    const std::lock_guard lock(lock_);
    ++figures_.Checked;
    if (isRight)
        return;
    ++figures_.Wrong;
    if (figures_.Samples.size() < kSamples)
        figures_.Samples.push_back("after " + std::to_string(std::lround(watch_.Seconds())) +
                                   " s: " + what);
}

void Run::CheckEqual(const std::string &answer, const std::string &expected,
                     const std::string &request)
{
    Check(answer == expected, request + " -> " + answer + " (not " + expected + ")");
}

void Run::Count(const std::string &what, std::uint64_t number)
{
    const std::lock_guard lock(lock_);
    figures_.Counts[what] += number;
}

void Run::Took(const std::string &request, double seconds)
{
    const std::lock_guard lock(lock_);
    totalSeconds_ += seconds;
    ++timed_;
    if (seconds <= figures_.LongestSeconds)
        return;
    figures_.LongestSeconds = seconds;
    figures_.LongestRequest = request;
}

Run::Figures Run::Read() const
{
    const std::lock_guard lock(lock_);
    Figures figures = figures_;
    figures.MeanSeconds = timed_ == 0 ? 0 : totalSeconds_ / static_cast<double>(timed_);
    return figures;
}

int OwnUser(unsigned number)
{
    return 100 + static_cast<int>(number);
}

} // namespace nimbra::endurance
