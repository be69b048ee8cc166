#include "base/Descriptor.h"

#include <gtest/gtest.h>

#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace nimbra {
namespace {

bool IsOpenInProcess(int descriptor)
{
    return fcntl(descriptor, F_GETFD) != -1;
}

int OpenNullDevice()
{
    return open("/dev/null", O_RDWR | O_CLOEXEC);
}

TEST(Descriptor, ClosesOnDestruction)
{
    const int number = OpenNullDevice();
    {
        const Descriptor owner(number);
        EXPECT_TRUE(owner.IsOpen());
        EXPECT_EQ(owner.Get(), number);
        EXPECT_TRUE(IsOpenInProcess(number));
    }
    EXPECT_FALSE(IsOpenInProcess(number));
}

TEST(Descriptor, OwnsNothingWhenNumberIsZeroOrNegative)
{
    EXPECT_FALSE(Descriptor().IsOpen());
    EXPECT_FALSE(Descriptor(-1).IsOpen());
    EXPECT_FALSE(Descriptor(0).IsOpen());
}

TEST(Descriptor, NeverClosesStandardInput)
{
    const int spare = IsOpenInProcess(0) ? -1 : open("/dev/null", O_RDONLY);
    ASSERT_TRUE(IsOpenInProcess(0));
    {
        Descriptor none(0);
        none.Close();
    }
    EXPECT_TRUE(IsOpenInProcess(0));
    if (spare != -1)
        close(spare);
}

TEST(Descriptor, MovesDescriptorOpenedAsStandardInputToAnotherNumber)
{
    const int saved = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    close(STDIN_FILENO);
    const int number = OpenNullDevice();
    {
        const Descriptor owner = Descriptor::AboveStandardInput(number);
        EXPECT_EQ(number, STDIN_FILENO);
        EXPECT_GT(owner.Get(), STDERR_FILENO);
        EXPECT_TRUE(IsOpenInProcess(owner.Get()));
        EXPECT_FALSE(IsOpenInProcess(STDIN_FILENO));
    }
    if (saved != -1)
        dup2(saved, STDIN_FILENO);
    close(saved);
}

TEST(Descriptor, KeepsNumberWhenStandardInputIsOpen)
{
    const int spare = IsOpenInProcess(STDIN_FILENO) ? -1 : open("/dev/null", O_RDONLY);
    const int number = OpenNullDevice();
    EXPECT_EQ(Descriptor::AboveStandardInput(number).Get(), number);
    EXPECT_FALSE(Descriptor::AboveStandardInput(-1).IsOpen());
    if (spare != -1)
        close(spare);
}

TEST(Descriptor, ClosesOnlyOnce)
{
    const int number = OpenNullDevice();
    Descriptor owner(number);
    owner.Close();
    EXPECT_FALSE(owner.IsOpen());
    EXPECT_FALSE(IsOpenInProcess(number));
    const int again = OpenNullDevice();
    ASSERT_EQ(again, number);
    owner.Close();
    EXPECT_TRUE(IsOpenInProcess(again));
    close(again);
}

TEST(Descriptor, StaysOpenAfterRelease)
{
    const int number = OpenNullDevice();
    {
        Descriptor owner(number);
        EXPECT_EQ(owner.Release(), number);
        EXPECT_FALSE(owner.IsOpen());
    }
    EXPECT_TRUE(IsOpenInProcess(number));
    close(number);
}

TEST(Descriptor, TransfersOwnershipOnMove)
{
    const int number = OpenNullDevice();
    Descriptor first(number);
    {
        const Descriptor second(std::move(first));
        EXPECT_EQ(second.Get(), number);
    }
    EXPECT_FALSE(IsOpenInProcess(number));
}

TEST(Descriptor, ClosesOldDescriptorOnMoveAssignment)
{
    const int oldNumber = OpenNullDevice();
    const int newNumber = OpenNullDevice();
    Descriptor owner(oldNumber);
    owner = Descriptor(newNumber);
    EXPECT_EQ(owner.Get(), newNumber);
    EXPECT_FALSE(IsOpenInProcess(oldNumber));
    EXPECT_TRUE(IsOpenInProcess(newNumber));
}

} // namespace
} // namespace nimbra
