#include "support/Faults.h"

#include "base/Descriptor.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <stdexcept>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace nimbra::test {

namespace {

/// The variable's value with one more option.
std::string WithOption(const char *variable, const std::string &option)
{
    const char *value = std::getenv(variable);
    return value == nullptr ? option : value + (":" + option);
}

} // namespace

Faults::Faults() : file_("/tmp/fault-state-" + std::to_string(getpid()))
{
    const Descriptor file(open(file_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    void *memory = MAP_FAILED;
    // A new file reads as zeros, which means no fault.
    if (ftruncate(file.Get(), sizeof(faults::SharedState)) == 0)
        memory = mmap(nullptr, sizeof(faults::SharedState), PROT_READ | PROT_WRITE, MAP_SHARED,
                      file.Get(), 0);
    if (memory == MAP_FAILED)
        throw std::runtime_error("cannot create the shared state of the fault library");
    state_ = static_cast<faults::SharedState *>(memory);
}

Faults::~Faults()
{
    munmap(state_, sizeof(faults::SharedState));
    unlink(file_.c_str());
}

Agent::Options Faults::Preloaded() const
{
    Agent::Options options;
    options.Environment = {
        {"LD_PRELOAD", NIMBRA_FAULTS_PATH},
        {faults::kStateVariable, file_},
        // The library may be loaded before the sanitizer's runtime, which it calls.
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

void Faults::ForgetStatements()
{
    state_->StatementCount = 0;
    for (char *statement : state_->Statements)
        std::fill_n(statement, faults::kStatementSize, '\0');
}

std::vector<std::string> Faults::Statements() const
{
    const std::uint32_t count = std::min(state_->StatementCount.load(), faults::kStatements);
    return {std::begin(state_->Statements), std::begin(state_->Statements) + count};
}

} // namespace nimbra::test
