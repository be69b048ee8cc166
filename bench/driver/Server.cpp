#include "bench/driver/Server.h"

#include "base/Descriptor.h"
#include "bench/driver/Clock.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace nimbra::bench {

namespace fs = std::filesystem;

namespace {

/// Whether a socket of this network listens on the port.
bool IsListening(int port)
{
    constexpr char kListening[] = "0A";
    std::ifstream file("/proc/self/net/tcp");
    std::string line;
    std::getline(file, line);
    while (std::getline(file, line)) {
        std::istringstream words(line);
        std::string number;
        std::string local;
        std::string remote;
        std::string state;
        words >> number >> local >> remote >> state;
        const std::size_t colon = local.find(':');
        if (state == kListening && colon != std::string::npos &&
            std::stoi(local.substr(colon + 1), nullptr, 16) == port)
            return true;
    }
    return false;
}

} // namespace

Server::Server(const ServerProgram &program) : port_(program.Port)
{
    if (!fs::exists(program.Path))
        throw std::runtime_error(program.Path.string() +
                                 " is missing; script/bootstrap bench installs the programs that "
                                 "the agent is measured against");
    std::vector<std::string> words{program.Path.string()};
    words.insert(words.end(), program.Arguments.begin(), program.Arguments.end());
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    pid_ = fork();
    if (pid_ < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const Descriptor nowhere(open("/dev/null", O_RDWR | O_CLOEXEC));
        dup2(nowhere.Get(), STDIN_FILENO);
        dup2(nowhere.Get(), STDOUT_FILENO);
        if (program.OnError == ServerProgram::Errors::Drop)
            dup2(nowhere.Get(), STDERR_FILENO);
        execv(arguments[0], arguments.data());
        _exit(127);
    }
}

Server::~Server()
{
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

void Server::AwaitListening() const
{
    constexpr double kPatience = 20;
    for (const double begin = Now(); !IsListening(port_); Sleep(0.001))
        if (Now() - begin > kPatience)
            throw std::runtime_error("nothing listens on port " + std::to_string(port_));
}

std::set<int> Server::Threads() const
{
    std::set<int> threads;
    for (const auto &entry : fs::directory_iterator("/proc/" + std::to_string(pid_) + "/task"))
        threads.insert(std::stoi(entry.path().filename().string()));
    return threads;
}

double Server::ProcessorTime(int thread) const
{
    // The first number is the time on a processor, in nanoseconds.
    std::ifstream file("/proc/" + std::to_string(pid_) + "/task/" + std::to_string(thread) +
                       "/schedstat");
    double nanoseconds = 0;
    file >> nanoseconds;
    return nanoseconds / 1e9;
}

double Server::ProcessorTime() const
{
    clockid_t clock = {};
    timespec time = {};
    if (clock_getcpuclockid(pid_, &clock) != 0 || clock_gettime(clock, &time) != 0)
        throw std::runtime_error("the processor time of a server cannot be read");
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

Memory Server::MemoryInUse() const
{
    std::ifstream file("/proc/" + std::to_string(pid_) + "/smaps_rollup");
    std::map<std::string, double> fields;
    for (std::string line; std::getline(file, line);) {
        const std::size_t colon = line.find(": ");
        if (colon != std::string::npos)
            fields[line.substr(0, colon)] = std::strtod(line.c_str() + colon + 1, nullptr);
    }
    const Memory memory = {fields["Rss"], fields["Pss"], fields["Private_Dirty"]};
    if (memory.Resident <= 0)
        throw std::runtime_error("the memory of a server cannot be read");
    return memory;
}

} // namespace nimbra::bench
