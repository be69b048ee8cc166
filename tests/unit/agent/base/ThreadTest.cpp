#include "base/Thread.h"

#include "base/Flag.h"
#include "support/Waiting.h"

#include <gtest/gtest.h>

#include <cstddef>

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

namespace nimbra {
namespace {

using test::WaitUntil;

/// Records the attributes of the thread on which it runs.
struct ThreadRecorder
{
    void Record()
    {
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getdetachstate(&attributes, &DetachState);
        pthread_attr_getstacksize(&attributes, &StackSize);
        pthread_attr_destroy(&attributes);
        Id = gettid();
        Done.Set();
    }

    int DetachState = -1;
    std::size_t StackSize = 0;
    pid_t Id = 0;
    Flag Done{false};
};

TEST(Thread, RunsMethodOnDetachedThreadWithSmallStack)
{
    ThreadRecorder recorder;
    ASSERT_TRUE(StartThread<&ThreadRecorder::Record>(&recorder));
    ASSERT_TRUE(WaitUntil([&] { return recorder.Done.IsSet(); }));
    EXPECT_NE(recorder.Id, gettid());
    EXPECT_EQ(recorder.DetachState, PTHREAD_CREATE_DETACHED);
    EXPECT_GE(recorder.StackSize, kThreadStack);
    // A sanitizer makes the stack larger; the default stack has 8 MiB.
    EXPECT_LT(recorder.StackSize, std::size_t{2} * 1024 * 1024);
}

TEST(Thread, PassesArgumentToItsFunction)
{
    static Flag done(false);
    static void *given = nullptr;
    int value = 0;
    ASSERT_TRUE(StartDetached(
        [](void *argument) -> void * {
            given = argument;
            done.Set();
            return nullptr;
        },
        &value));
    ASSERT_TRUE(WaitUntil([] { return done.IsSet(); }));
    EXPECT_EQ(given, &value);
}

/// Forbids further threads and tries to start one. Exits with 0 if that fails as it must.
[[noreturn]] void StartThreadBeyondLimit()
{
    constexpr uid_t kNobody = 65534;
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_NPROC, &none);
    // The limit does not apply to root.
    if (geteuid() == 0 && setuid(kNobody) != 0)
        _exit(2);
    _exit(StartDetached([](void *argument) { return argument; }, nullptr) ? 1 : 0);
}

TEST(ThreadDeathTest, ReportsThreadThatCannotBeStarted)
{
    EXPECT_EXIT(StartThreadBeyondLimit(), ::testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace nimbra
