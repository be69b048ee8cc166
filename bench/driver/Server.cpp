#include "bench/driver/Server.h"

#include <fstream>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace nimbra::bench {

namespace fs = std::filesystem;

Server::Server(const Side &side) : port_(side.Port)
{
    const std::string program = side.Program.string();
    const std::string port = std::to_string(side.Port);
    pid_ = fork();
    if (pid_ < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
        dup2(nowhere, STDIN_FILENO);
        dup2(nowhere, STDOUT_FILENO);
        // The agent has its port fixed and heeds no argument.
        execl(program.c_str(), program.c_str(), port.c_str(), nullptr);
        _exit(127);
    }
}

Server::~Server()
{
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
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
    double sum = 0;
    for (const int thread : Threads())
        sum += ProcessorTime(thread);
    return sum;
}

double Server::PrivateMemory() const
{
    std::ifstream file("/proc/" + std::to_string(pid_) + "/smaps_rollup");
    double sum = 0;
    for (std::string word; file >> word;) {
        double kilobytes = 0;
        if ((word == "Private_Clean:" || word == "Private_Dirty:") && file >> kilobytes)
            sum += kilobytes;
    }
    if (sum <= 0)
        throw std::runtime_error("the memory of a server cannot be read");
    return sum;
}

} // namespace nimbra::bench
