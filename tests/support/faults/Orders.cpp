#include "support/faults/Orders.h"

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

/// Null in every other program, and in the agent before its start.
constinit std::atomic<FaultBoard *> board = nullptr;

/// Maps the board, and hides it and the library from the programs that the agent runs.
[[gnu::constructor]] void FindBoard()
{
    const char *file = std::getenv(kBoardVariable);
    if (file == nullptr || std::strcmp(program_invocation_short_name, kProgram) != 0)
        return;
    const int descriptor = open(file, O_RDWR | O_CLOEXEC);
    void *memory =
        mmap(nullptr, sizeof(FaultBoard), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    close(descriptor);
    if (memory == MAP_FAILED) {
        std::fprintf(stderr, "nimbra-faults: there is no %s\n", file);
        _exit(EXIT_FAILURE);
    }
    unsetenv(kBoardVariable);
    unsetenv("LD_PRELOAD");
    board = static_cast<FaultBoard *>(memory);
}

} // namespace

int TakeError(Point point)
{
    FaultBoard *const found = board.load();
    if (found == nullptr)
        return 0;
    PointState &state = found->Points[static_cast<unsigned>(point)];
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

std::time_t ClockSeconds()
{
    const FaultBoard *const found = board.load();
    return found == nullptr ? 0 : static_cast<std::time_t>(found->ClockSeconds.load());
}

} // namespace nimbra::faults
