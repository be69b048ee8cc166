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

/// Notes how the thread that it runs on was made.
struct Witness
{
    void Look()
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

TEST(Thread, RunsAMethodOnADetachedThreadWithASmallStack)
{
    Witness witness;
    ASSERT_TRUE(StartThread<&Witness::Look>(&witness));
    ASSERT_TRUE(WaitUntil([&] { return witness.Done.IsSet(); }));
    EXPECT_NE(witness.Id, gettid());
    EXPECT_EQ(witness.DetachState, PTHREAD_CREATE_DETACHED);
    EXPECT_GE(witness.StackSize, kThreadStack);
    // A sanitizer adds to it; the usual stack has 8 MiB.
    EXPECT_LT(witness.StackSize, std::size_t{2} * 1024 * 1024);
}

TEST(Thread, HandsTheArgumentToItsBody)
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

/// Ends the process with 0 if a thread is refused where no more processes are allowed.
[[noreturn]] void StartWhereNoThreadCanBe()
{
    constexpr uid_t kNobody = 65534;
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_NPROC, &none);
    // Root is above the limit.
    if (geteuid() == 0 && setuid(kNobody) != 0)
        _exit(2);
    _exit(StartDetached([](void *argument) { return argument; }, nullptr) ? 1 : 0);
}

TEST(ThreadDeathTest, ReportsAThreadThatCannotBeMade)
{
    EXPECT_EXIT(StartWhereNoThreadCanBe(), ::testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace nimbra
