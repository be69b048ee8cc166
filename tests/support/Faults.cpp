#include "support/Faults.h"

#include <cstdlib>
#include <stdexcept>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace nimbra::test {

namespace {

/// What the caller has set, and one option more.
std::string WithOption(const char *variable, const std::string &option)
{
    const char *value = std::getenv(variable);
    return value == nullptr ? option : value + (":" + option);
}

} // namespace

Faults::Faults() : file_("/tmp/fault-board-" + std::to_string(getpid()))
{
    const int descriptor = open(file_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    void *memory = MAP_FAILED;
    // A file that has just been made reads as zeros: no fault.
    if (ftruncate(descriptor, sizeof(faults::FaultBoard)) == 0)
        memory = mmap(nullptr, sizeof(faults::FaultBoard), PROT_READ | PROT_WRITE, MAP_SHARED,
                      descriptor, 0);
    close(descriptor);
    if (memory == MAP_FAILED)
        throw std::runtime_error("no room for the orders to the fault library");
    board_ = static_cast<faults::FaultBoard *>(memory);
}

Faults::~Faults()
{
    munmap(board_, sizeof(faults::FaultBoard));
    unlink(file_.c_str());
}

Agent::Options Faults::Preloaded() const
{
    Agent::Options options;
    options.Environment = {
        {"LD_PRELOAD", NIMBRA_FAULTS_PATH},
        {faults::kBoardVariable, file_},
        // The library may stand before the sanitizer's: it calls on to it.
        {"ASAN_OPTIONS", WithOption("ASAN_OPTIONS", "verify_asan_link_order=0")}};
    return options;
}

void Faults::Fail(faults::Point point, int error, std::uint32_t first, std::uint32_t number)
{
    faults::PointState &state = At(point);
    state.First = 0;
    state.Error = error;
    state.Number = number;
    state.Failed = 0;
    state.Calls = 0;
    state.First = first;
}

std::size_t Faults::Calls(faults::Point point) const
{
    return At(point).Calls;
}

std::size_t Faults::Failed(faults::Point point) const
{
    return At(point).Failed;
}

} // namespace nimbra::test
