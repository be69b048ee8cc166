#include "data/RowList.h"

#include "data/AccessLevelInfo.h"
#include "data/CardInfo.h"
#include "data/DoorInfo.h"
#include "data/EventCodeInfo.h"
#include "data/EventInfo.h"
#include "data/ThreatInfo.h"
#include "data/UserInfo.h"

#include <climits>
#include <gtest/gtest.h>

#include <barrier>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace nimbra {
namespace {

std::string Letters(std::size_t count, int seed)
{
    std::string text;
    for (std::size_t i = 0; i < count; ++i)
        text += static_cast<char>('a' + (static_cast<std::size_t>(seed) + i) % 26);
    return text;
}

void Fill(std::int32_t *number, int seed)
{
    *number = seed % 2 == 0 ? INT_MIN + seed : seed;
}
template <std::size_t N>
void Fill(FixedText<N> *text, int seed)
{
    // Some texts are longer than the field, some are empty.
    text->Assign(Letters(static_cast<std::size_t>(seed) * 7 % (N + 5), seed));
}

/// A record whose fields all differ, and differ from those of another seed.
template <class Record>
Record Make(int seed)
{
    Record record;
    std::apply([&seed](auto &...fields) { (Fill(&fields, ++seed), ...); }, Record::Fields(record));
    return record;
}

/// A door whose name has `nameSize` bytes.
DoorInfo Door(std::int32_t number, std::size_t nameSize = 32)
{
    DoorInfo door;
    door.DoorNo = number;
    door.Name.Assign(Letters(nameSize, number));
    return door;
}

/// A user with the longest texts.
UserInfo User(std::int32_t number)
{
    UserInfo user;
    user.UserNo = number;
    for (FixedText<32> *text : {&user.FirstName, &user.MiddleName, &user.LastName,
                                &user.PhoneNumber, &user.CellPhone, &user.Email})
        text->Assign("abcdefghijklmnopqrstuvwxyz0123456789");
    return user;
}

template <class Record>
class RowListOfRecords : public ::testing::Test
{};

using Records = ::testing::Types<AccessLevelInfo, CardFormatInfo, CardInfo, DoorInfo, EventCodeInfo,
                                 EventInfo, ThreatInfo, UserInfo>;
TYPED_TEST_SUITE(RowListOfRecords, Records);

TYPED_TEST(RowListOfRecords, ReturnsEachRowUnchanged)
{
    RowList<TypeParam> rows;
    for (int seed = 0; seed < 500; ++seed)
        ASSERT_TRUE(rows.Append(Make<TypeParam>(seed)));
    EXPECT_EQ(rows.Count(), 500);
    auto row = Make<TypeParam>(12345);
    for (int seed = 0; seed < 500; ++seed) {
        ASSERT_TRUE(rows.TakeFront(&row));
        const auto expected = Make<TypeParam>(seed);
        EXPECT_TRUE(TypeParam::Fields(row) == TypeParam::Fields(expected)) << seed;
    }
    EXPECT_EQ(rows.Count(), 0);
    EXPECT_FALSE(rows.TakeFront(&row));
}

TYPED_TEST(RowListOfRecords, KeepsEveryField)
{
    TypeParam record;
    std::size_t bytes = 0;
    std::apply([&bytes](auto &...fields) { ((bytes += sizeof fields), ...); },
               TypeParam::Fields(record));
    // Only padding between fields is left out.
    EXPECT_LT(sizeof record - bytes, 4 * std::tuple_size_v<decltype(TypeParam::Fields(record))>);
    std::size_t padded = 0;
    std::apply(
        [&padded](auto &...fields) {
            const auto place = [&padded](std::size_t size, std::size_t alignment) {
                padded = (padded + alignment - 1) / alignment * alignment + size;
            };
            (place(sizeof fields, alignof(decltype(fields))), ...);
        },
        TypeParam::Fields(record));
    EXPECT_EQ((padded + 3) / 4 * 4, sizeof record);
}

TEST(RowList, ReturnsRowsInOrderWhileOthersAreAdded)
{
    RowList<DoorInfo> rows;
    DoorInfo door;
    std::int32_t added = 0;
    for (std::int32_t taken = 0; taken < 3000; ++taken) {
        while (added < 5000 && rows.Count() < 700)
            ASSERT_TRUE(rows.Append(Door(added++)));
        ASSERT_TRUE(rows.TakeFront(&door));
        ASSERT_EQ(door.DoorNo, taken);
        ASSERT_EQ(door.Name.View(), Letters(32, taken));
    }
}

TEST(RowList, UsesNoMemoryWhenEmpty)
{
    ASSERT_EQ(RowBytes::Held(), 0U);
    RowList<DoorInfo> rows;
    EXPECT_EQ(RowBytes::Held(), 0U);
    DoorInfo door;
    EXPECT_FALSE(rows.TakeFront(&door));
    for (std::int32_t i = 0; i < 10000; ++i)
        ASSERT_TRUE(rows.Append(Door(i)));
    EXPECT_GT(RowBytes::Held(), 10000U * 40);
    while (rows.TakeFront(&door))
        continue;
    EXPECT_EQ(RowBytes::Held(), 0U);
}

TEST(RowBytes, FillsEachBlockToItsLastByte)
{
    RowBytes rows;
    const std::string row(RowBytes::kLongestRow, 'r');
    ASSERT_TRUE(rows.Append(row));
    const std::size_t firstBlock = RowBytes::Held();
    ASSERT_EQ(firstBlock % row.size(), 0U);
    for (std::size_t used = row.size(); used < firstBlock; used += row.size())
        EXPECT_TRUE(rows.Append(row));
    EXPECT_EQ(RowBytes::Held(), firstBlock);
    EXPECT_TRUE(rows.Append("r"));
    EXPECT_GT(RowBytes::Held(), firstBlock);
}

TEST(RowList, ReleasesMemoryAsRowsAreTaken)
{
    RowList<DoorInfo> rows;
    for (std::int32_t i = 0; i < 100000; ++i)
        ASSERT_TRUE(rows.Append(Door(i)));
    const std::size_t all = RowBytes::Held();
    DoorInfo door;
    for (std::int32_t i = 0; i < 50000; ++i)
        ASSERT_TRUE(rows.TakeFront(&door));
    EXPECT_LT(RowBytes::Held(), all * 6 / 10);
    EXPECT_GT(RowBytes::Held(), all * 4 / 10);
}

TEST(RowList, ReleasesMemoryOnDestruction)
{
    {
        RowList<DoorInfo> rows;
        for (std::int32_t i = 0; i < 10000; ++i)
            ASSERT_TRUE(rows.Append(Door(i)));
        EXPECT_GT(RowBytes::Held(), 0U);
    }
    EXPECT_EQ(RowBytes::Held(), 0U);
}

TEST(RowList, UsesLittleMoreMemoryThanUsedPartOfRow)
{
    EventInfo event;
    event.DeviceName.Assign("Front entrance");
    event.EventDesc.Assign("Access granted");
    event.UserName.Assign("Alice Archer");
    constexpr std::size_t kRows = 100000;
    RowList<EventInfo> rows;
    for (std::size_t i = 0; i < kRows; ++i)
        ASSERT_TRUE(rows.Append(event));
    EXPECT_LT(RowBytes::Held(), kRows * 80);
}

TEST(RowList, Holds100000EventsWithLongestTexts)
{
    EventInfo event;
    event.DeviceName.Assign(Letters(32, 0));
    event.EventDesc.Assign(Letters(64, 0));
    event.UserName.Assign(Letters(32, 0));
    RowList<EventInfo> rows;
    for (int i = 0; i < 100000; ++i)
        ASSERT_TRUE(rows.Append(event));
    EXPECT_LT(RowBytes::Held(), 100000U * 170);
}

TEST(RowList, RefusesRowsAtLimitOfAllLists)
{
    auto first = std::make_unique<RowList<UserInfo>>();
    RowList<UserInfo> second;
    ASSERT_TRUE(second.Append(User(1)));
    std::int32_t count = 0;
    while (first->Append(User(count)))
        ++count;
    EXPECT_EQ(first->Count(), count);
    EXPECT_LE(RowBytes::Held(), RowBytes::kLimit);
    EXPECT_GT(RowBytes::Held(), RowBytes::kLimit - std::size_t{2} * 128 * 1024);
    EXPECT_FALSE(first->Append(User(count)));

    // The rows in the list are complete.
    UserInfo user;
    ASSERT_TRUE(first->TakeFront(&user));
    EXPECT_EQ(user.UserNo, 0);

    // Another list can use the memory as soon as the first has released it.
    first.reset();
    for (std::int32_t i = 0; i < count / 2; ++i)
        ASSERT_TRUE(second.Append(User(i)));
}

TEST(RowList, CountsMemoryOfAllThreads)
{
    constexpr std::size_t kThreads = 8;
    constexpr int kRounds = 20;
    const auto fill = [](RowList<DoorInfo> *rows) {
        for (std::int32_t i = 0; i < 2000; ++i)
            EXPECT_TRUE(rows->Append(Door(i)));
    };
    std::size_t one = 0;
    {
        RowList<DoorInfo> rows;
        fill(&rows);
        one = RowBytes::Held();
    }
    EXPECT_GT(one, 0U);
    std::barrier areFilled(kThreads + 1);
    std::barrier areCounted(kThreads + 1);
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (std::size_t thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                RowList<DoorInfo> rows;
                fill(&rows);
                areFilled.arrive_and_wait();
                areCounted.arrive_and_wait();
            }
        });
    for (int round = 0; round < kRounds; ++round) {
        areFilled.arrive_and_wait();
        EXPECT_EQ(RowBytes::Held(), kThreads * one);
        areCounted.arrive_and_wait();
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(RowBytes::Held(), 0U);
}

} // namespace
} // namespace nimbra
