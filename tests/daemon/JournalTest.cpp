#include <gtest/gtest.h>

#include <fstream>

#include "daemon/Journal.h"
#include "kit/AtomicFile.h"
#include "support/CorePrinters.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

JournalEntry entry(int second) {
    return JournalEntry{
        dateFromEpochSeconds(1740821400 + second), JournalEntry::Kind::power, {}, {}, "release", {}, {}};
}

TEST(JournalTest, ATornLastLineCostsOnlyItselfAndWritingGoesOnOnAFreshLine) {
    testing::TempDir dir;
    ASSERT_TRUE(Journal(dir / "journal.jsonl").append(entry(1)));
    std::ofstream(dir / "journal.jsonl", std::ios::app) << R"({"date":"2025-03-01T09:30:02Z","ki)";
    Journal journal(dir / "journal.jsonl");
    ASSERT_TRUE(journal.append(entry(3)));
    EXPECT_EQ(journal.read(), (std::vector<JournalEntry>{entry(1), entry(3)}));
}

TEST(JournalTest, RotatesPastItsLimitAndReadsAcrossTheRotation) {
    testing::TempDir dir;
    Journal journal(dir / "journal.jsonl", 2 * (TavraJSON::encodeValue(entry(0)).size() + 1));
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(journal.append(entry(i)));
    // Two lines a file; the oldest rotation is gone.
    EXPECT_EQ(journal.read(), (std::vector<JournalEntry>{entry(2), entry(3), entry(4)}));
    EXPECT_TRUE(readWholeFile(dir / "journal.1.jsonl").has_value());
}

}  // namespace
}  // namespace tavra
