#include "support/faults/FaultRules.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace nimbra::faults {

namespace {

constexpr char kProgram[] = "nimbra-agent";

/// Null in every other program, and in the agent before its constructors run.
constinit std::atomic<SharedState *> sharedState = nullptr;

/// Maps the shared state, and removes the variables that the programs run by the agent would
/// inherit.
[[gnu::constructor]] void MapSharedState()
{
    const char *file = std::getenv(kStateVariable);
    if (file == nullptr || std::strcmp(program_invocation_short_name, kProgram) != 0)
        return;
    const int descriptor = open(file, O_RDWR | O_CLOEXEC);
    void *memory =
        mmap(nullptr, sizeof(SharedState), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    close(descriptor);
    if (memory == MAP_FAILED) {
        std::fprintf(stderr, "nimbra-faults: cannot map %s\n", file);
        _exit(EXIT_FAILURE);
    }
    unsetenv(kStateVariable);
    unsetenv("LD_PRELOAD");
    sharedState = static_cast<SharedState *>(memory);
}

} // namespace

int TakeError(Point point)
{
    SharedState *const shared = sharedState.load();
    if (shared == nullptr)
        return 0;
    PointState &state = shared->Points[static_cast<unsigned>(point)];
    state.Turn = shared->Turns.fetch_add(1) + 1;
    const std::uint32_t call = state.Calls.fetch_add(1) + 1;
    const std::uint32_t first = state.First.load();
    if (first == 0 || call < first || call - first >= state.Number.load())
        return 0;
    usleep(state.Delay.load() * 1000);
    state.Failed.fetch_add(1);
    return state.Error.load();
}

bool ShallFail(Point point)
{
    const int error = TakeError(point);
    if (error != 0)
        errno = error;
    return error != 0;
}

void RecordStatement(const char *sql)
{
    SharedState *const shared = sharedState.load();
    if (shared == nullptr)
        return;
    const std::uint32_t number = shared->StatementCount.fetch_add(1);
    if (number < kStatements)
        std::strncpy(shared->Statements[number], sql, kStatementSize - 1);
}

std::time_t ClockSeconds()
{
    const SharedState *const shared = sharedState.load();
    return shared == nullptr ? 0 : static_cast<std::time_t>(shared->ClockSeconds.load());
}

} // namespace nimbra::faults
