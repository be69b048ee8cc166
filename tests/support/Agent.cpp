#include "support/Agent.h"

#include "simulator/fleet/ProcessStatus.h"
#include "simulator/sandbox/SystemCall.h"
#include "support/Files.h"
#include "support/Sanitized.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace nimbra::test {

namespace {

constexpr char kAgentPath[] = NIMBRA_AGENT_PATH;

/// Texts of sanitizer reports.
constexpr std::array<std::string_view, 4> kReports = {
    "Sanitizer:", "runtime error:", "SUMMARY: ", "terminate called"};

bool IsReport(const std::string &line)
{
    return std::any_of(kReports.begin(), kReports.end(), [&line](std::string_view word) {
        return line.find(word) != std::string::npos;
    });
}

/// The message of a log line, if `line` is one of `source` and `method`.
bool IsMessage(std::string_view line, std::string_view source, std::string_view method,
               std::string_view message)
{
    // DEBUG: <time>:<source>:<line>:<method>(): <message>
    std::istringstream text{std::string(line)};
    std::string lead;
    std::string time;
    std::string file;
    std::string number;
    if (!(text >> lead) || lead != "DEBUG:" || text.get() != ' ' ||
        !std::getline(text, time, ':') || !std::getline(text, file, ':') ||
        !std::getline(text, number, ':'))
        return false;
    std::string rest;
    std::getline(text, rest);
    const auto isNumber = [](const std::string &digits) {
        return !digits.empty() && std::all_of(digits.begin(), digits.end(),
                                              [](unsigned char c) { return std::isdigit(c) != 0; });
    };
    return isNumber(time) && isNumber(number) && file == source &&
           rest == std::string(method) + "(): " + std::string(message);
}

} // namespace

Agent::Agent(Options options)
{
    sandbox::Pipe output = sandbox::MakePipe();
    options.Wrapper.emplace_back(kAgentPath);
    std::vector<char *> arguments;
    for (std::string &word : options.Wrapper)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    pid_ = fork();
    if (pid_ < 0)
        throw std::runtime_error("the agent cannot be started");
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(output.WriteEnd.Get(), STDOUT_FILENO);
        dup2(output.WriteEnd.Get(), STDERR_FILENO);
        // Other descriptors that the caller of the test has left open are not for the agent.
        close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
        for (const auto &[name, value] : options.Environment)
            setenv(name.c_str(), value.c_str(), 1);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    output_ = std::move(output.ReadEnd);
    output.WriteEnd.Close();
    fcntl(output_.Get(), F_SETFL, fcntl(output_.Get(), F_GETFL) | O_NONBLOCK);
    // The pipe is large enough for the output while the test does something else.
    fcntl(output_.Get(), F_SETPIPE_SZ, 1024 * 1024);
    if (options.WaitUntilServing && !WaitForLog(", Port: 9000"))
        ADD_FAILURE() << "the agent did not open its listener";
}

Agent::~Agent()
{
    if (IsRunning() && !End()) {
        ADD_FAILURE() << "the agent did not end after SIGTERM";
        Signal(SIGKILL);
        static_cast<void>(WaitForExit());
    }
    ReadOutput();
    FailOnReports();
}

Agent::Options Agent::InTimeZone(const std::string &timeZone)
{
    Options options;
    options.Environment = {{"TZ", timeZone}};
    return options;
}

const std::vector<std::string> &Agent::Log()
{
    ReadOutput();
    return lines_;
}

std::size_t Agent::ForgetLog()
{
    ReadOutput();
    return std::erase_if(lines_, [](const std::string &line) { return !IsReport(line); });
}

std::size_t Agent::CountInLog(std::string_view text)
{
    ReadOutput();
    return static_cast<std::size_t>(
        std::count_if(lines_.begin(), lines_.end(), [text](const std::string &line) {
            return line.find(text) != std::string::npos;
        }));
}

bool Agent::WaitForLog(std::string_view text, milliseconds limit, std::size_t count)
{
    return WaitUntil([&] { return CountInLog(text) >= count; }, limit);
}

std::size_t Agent::CountMessages(std::string_view source, std::string_view method,
                                 std::string_view message)
{
    ReadOutput();
    return static_cast<std::size_t>(
        std::count_if(lines_.begin(), lines_.end(), [&](const std::string &line) {
            return IsMessage(line, source, method, message);
        }));
}

bool Agent::WaitForMessage(std::string_view source, std::string_view method,
                           std::string_view message, std::size_t count, milliseconds limit)
{
    return WaitUntil([&] { return CountMessages(source, method, message) >= count; }, limit);
}

void Agent::Signal(int signal)
{
    if (!IsRunning())
        return;
    isKilled_ = isKilled_ || signal == SIGKILL;
    isToldToEnd_ = isToldToEnd_ || signal == SIGTERM || signal == SIGINT || signal == SIGQUIT;
    kill(pid_, signal);
}

bool Agent::Suspend()
{
    Signal(SIGSTOP);
    return WaitUntil([this] {
        const std::filesystem::directory_iterator tasks("/proc/" + std::to_string(pid_) + "/task");
        return std::all_of(begin(tasks), end(tasks), [](const auto &task) {
            return ReadFile(task.path() / "status").find("\nState:\tT") != std::string::npos;
        });
    });
}

std::optional<int> Agent::WaitForExit(milliseconds limit)
{
    static_cast<void>(WaitUntil(
        [this] {
            ReadOutput();
            return !IsRunning();
        },
        limit));
    return status_;
}

std::optional<int> Agent::End(milliseconds limit)
{
    Signal(SIGTERM);
    return WaitForExit(limit);
}

bool Agent::IsRunning()
{
    int status = 0;
    if (!status_ && waitpid(pid_, &status, WNOHANG) == pid_)
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return !status_;
}

std::size_t Agent::Descriptors() const
{
    const std::filesystem::directory_iterator entries("/proc/" + std::to_string(pid_) + "/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

std::size_t Agent::Threads() const
{
    constexpr std::size_t kThreadsOfSanitizer = kIsThreadSanitized ? 1 : 0;
    return simulator::NumberInStatus("/proc/" + std::to_string(pid_), "Threads") -
           kThreadsOfSanitizer;
}

std::size_t Agent::ResidentKiB() const
{
    return simulator::NumberInStatus("/proc/" + std::to_string(pid_), "VmRSS");
}

double Agent::CpuSeconds() const
{
    // Of the fields after the program's name, user and system time are the 12th and 13th.
    std::string stat = ReadFile("/proc/" + std::to_string(pid_) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 1));
    std::string skipped;
    for (int i = 0; i < 11; ++i)
        fields >> skipped;
    double user = 0;
    double system = 0;
    fields >> user >> system;
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

void Agent::ReadOutput()
{
    std::array<char, 65536> bytes;
    ssize_t count = 0;
    while ((count = read(output_.Get(), bytes.data(), bytes.size())) > 0) {
        unfinished_.append(bytes.data(), static_cast<std::size_t>(count));
        std::size_t end = 0;
        while ((end = unfinished_.find('\n')) != std::string::npos) {
            lines_.push_back(unfinished_.substr(0, end));
            unfinished_.erase(0, end + 1);
        }
    }
}

void Agent::FailOnReports()
{
    const bool isWanted = (isToldToEnd_ && status_ == 0) || (isKilled_ && status_ == -SIGKILL);
    bool isBad = !isWanted;
    isBad = isBad || std::any_of(lines_.begin(), lines_.end(), IsReport);
    if (!isBad && !::testing::Test::HasFailure())
        return;
    std::ostringstream log;
    for (const std::string &line : lines_)
        log << line << '\n';
    if (isBad)
        ADD_FAILURE() << "the agent ended badly, with status " << status_.value_or(0)
                      << "; its output:\n"
                      << log.str();
    else
        std::puts(("The agent's output:\n" + log.str()).c_str());
}

} // namespace nimbra::test
