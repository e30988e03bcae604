// Entry arrays: growth, clamped reads, the cp-keyed search and shifts, sorted string entries.
#include "keelson/KSArrayCP.h"
#include "keelson/KSArrayString.h"
#include "tests/support/TestSupport.h"

#include <cstring>

TEST(KSArray, RejectsBadStridesAndGrowsByAQuarter)
{
    EXPECT_EQ(KSArray::create(3), nullptr);
    EXPECT_EQ(KSArray::create(0), nullptr);
    EXPECT_EQ(KSArray::create(4, 0, true), nullptr);
    EXPECT_EQ(KSArrayCP::create(3, 0, 0, 0), nullptr);
    EXPECT_NE(KSArrayCP::create(0, 0, 0, 0), nullptr); // cps only

    auto array = KSArray::create(4, 5);
    ASSERT_TRUE(array);
    EXPECT_EQ(array->capacity(), 10u);
    const std::size_t expected[][2] = {{11, 20}, {21, 30}, {31, 40}, {41, 50}, {51, 62}, {63, 77}};
    int32_t value = 0;
    for (const auto &step : expected) {
        while (array->count() < step[0]) {
            const std::size_t index = array->addEntry(&value);
            ASSERT_EQ(index, array->count() - 1);
            ++value;
        }
        EXPECT_EQ(array->capacity(), step[1]) << "after insertion " << step[0];
    }
    // Contents survived every growth; out-of-range reads clamp or zero-fill.
    int32_t read = -1;
    array->getEntry(&read, 40);
    EXPECT_EQ(read, 40);
    array->getEntry(&read, 1000);
    EXPECT_EQ(read, 0);
    EXPECT_EQ(std::memcmp(array->entryAtIndex(1000), array->lastEntry(), 4), 0);
    EXPECT_FALSE(array->insertEntry(&value, array->count() + 1));

    array->sortEntriesWithContext(nullptr, [](const void *a, const void *b, void *) {
        int32_t x, y;
        std::memcpy(&x, a, 4);
        std::memcpy(&y, b, 4);
        return x < y ? 1 : (x > y ? -1 : 0); // descending
    });
    array->getEntry(&read, 0);
    EXPECT_EQ(read, 62);
    array->getEntry(&read, 62);
    EXPECT_EQ(read, 0);

    auto copy = array->copy();
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->count(), array->count());
    EXPECT_EQ(std::memcmp(copy->firstEntry(), array->firstEntry(), array->count() * 4), 0);
}

class CpArray : public ::testing::Test {
protected:
    // Entries at cps 0, 10, 10, 20 and maxCp 30.
    std::unique_ptr<KSArrayCP> make(unsigned options)
    {
        auto array = KSArrayCP::create(2, 0, 30, options);
        const int32_t cps[] = {0, 10, 10, 20};
        for (std::size_t i = 0; i < 4; ++i) {
            const int16_t record = int16_t(100 + i);
            EXPECT_TRUE(array->insertEntry(&record, i, cps[i]));
        }
        return array;
    }
};

TEST_F(CpArray, BinarySearchWithAndWithoutFirstOfEqual)
{
    auto plain = make(0), first = make(KSArrayCP::kFirstOfEqualCps);
    EXPECT_EQ(plain->count(), 4u);
    EXPECT_EQ(plain->indexOfCp(15), 2u);
    EXPECT_EQ(first->indexOfCp(15), 1u);
    EXPECT_EQ(plain->indexOfCp(10), 2u);
    EXPECT_EQ(first->indexOfCp(10), 1u);
    EXPECT_EQ(plain->indexOfCp(35), 3u);
    EXPECT_EQ(plain->indexOfCpAfter(11), 3u);
    EXPECT_EQ(plain->indexOfCpAfter(31), KSNotFound);
    EXPECT_EQ(plain->indexOfCpSafe(30), KSNotFound);
    EXPECT_EQ(plain->indexOfCpSafe(0), 0u);
    std::size_t index = 0;
    EXPECT_EQ(plain->cpAfterCp(21, &index), int32_t(0xFFFFFFFF)); // only the marker is after
    EXPECT_EQ(index, KSNotFound);
    EXPECT_EQ(plain->cpAtIndex(4), 30);
    EXPECT_EQ(plain->cpAtIndex(5), int32_t(0xFFFFFFFF));
    int16_t record = 0;
    EXPECT_EQ(plain->cpGetEntry(&record, 3), 20);
    EXPECT_EQ(record, 103);
}

TEST_F(CpArray, ShiftsAfterAnEdit)
{
    auto cpsOf = [](KSArrayCP &a) {
        std::vector<int32_t> cps;
        for (std::size_t i = 0; i <= a.count(); ++i)
            cps.push_back(a.cpAtIndex(i));
        return cps;
    };
    auto plain = make(0);
    plain->adjustCpsAfter(10, 5, KSNotFound);
    EXPECT_EQ(cpsOf(*plain), (std::vector<int32_t> {0, 10, 10, 25, 35}));
    auto both = make(KSArrayCP::kFirstOfEqualCps | KSArrayCP::kShiftMovesStartAt);
    both->adjustCpsAfter(10, 5, KSNotFound);
    EXPECT_EQ(cpsOf(*both), (std::vector<int32_t> {0, 15, 15, 25, 35}));
    auto startAt = make(KSArrayCP::kShiftMovesStartAt);
    startAt->adjustCpsAfter(10, 5, KSNotFound);
    EXPECT_EQ(cpsOf(*startAt), (std::vector<int32_t> {0, 10, 15, 25, 35}));

    startAt->deleteAllEntries();
    EXPECT_EQ(startAt->count(), 0u);
    EXPECT_EQ(startAt->maxCp(), 35);
    auto deleted = make(0);
    deleted->deleteEntries(10, 2); // clipped: the marker survives
    EXPECT_EQ(cpsOf(*deleted), (std::vector<int32_t> {0, 10, 30}));
    deleted->setCount(1, 12);
    EXPECT_EQ(cpsOf(*deleted), (std::vector<int32_t> {0, 12}));
}

TEST(KSArrayString, SortedInsertionFindAndOwnership)
{
    auto array = KSArrayString::create(4);
    ASSERT_TRUE(array);
    const int32_t a = 1, g = 2;
    ASSERT_EQ(array->addEntry(&a, std::make_unique<QString>(QStringLiteral("Alpha")).get()), 0u);
    ASSERT_EQ(array->addEntry(&g, std::make_unique<QString>(QStringLiteral("Gamma")).get()), 1u);
    EXPECT_EQ(array->insertEntryWithSortedString(nullptr, QStringLiteral("beta")), 1u);
    EXPECT_EQ(array->insertEntryWithSortedString(nullptr, QStringLiteral("alpha")), 0u);
    EXPECT_EQ(array->insertEntryWithSortedString(nullptr, QString()), KSNotFound);
    EXPECT_EQ(*array->stringAtIndex(0), QStringLiteral("alpha"));
    EXPECT_EQ(*array->stringAtIndex(1), QStringLiteral("Alpha"));

    std::size_t index = 0;
    EXPECT_TRUE(array->findString(QStringLiteral("GAMMA"), true, &index));
    EXPECT_EQ(index, 3u);
    EXPECT_FALSE(array->findString(QStringLiteral("delta"), true, &index));
    EXPECT_EQ(index, 3u); // insertion point
    EXPECT_FALSE(array->findString(QStringLiteral("delta"), false, &index));
    EXPECT_EQ(index, array->count());

    array->addEntry(&a, nullptr); // a nil string sorts as empty, first
    array->sortStringEntriesWithContext(nullptr, nullptr);
    EXPECT_EQ(array->stringAtIndex(0), nullptr);
    int32_t record = 0;
    EXPECT_EQ(*array->stringAndEntry(&record, 4), QStringLiteral("Gamma"));
    EXPECT_EQ(record, 2);

    auto copy = array->copy();
    ASSERT_TRUE(copy);
    array->deleteAllEntries(); // the copy owns its own strings
    EXPECT_EQ(*static_cast<KSArrayString &>(*copy).stringAtIndex(4), QStringLiteral("Gamma"));
    EXPECT_TRUE(static_cast<KSArrayString &>(*copy).replaceEntry(nullptr, nullptr, 0));
    EXPECT_EQ(copy->count(), 4u);
}
