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

// A torn last line (a crash mid-write) costs only itself; writing goes on on
// a fresh line; past its limit the file rotates and reading spans both.
TEST(JournalTest, SkipsATornLineAndReadsAcrossTheRotation) {
    testing::TempDir dir;
    ASSERT_TRUE(Journal(dir / "journal.jsonl").append(entry(1)));
    std::ofstream(dir / "journal.jsonl", std::ios::app) << R"({"date":"2025-03-01T09:30:02Z","ki)";
    Journal journal(dir / "journal.jsonl", 3 * (TavraJSON::encodeValue(entry(0)).size() + 1));
    for (int i = 3; i < 6; ++i) ASSERT_TRUE(journal.append(entry(i)));
    // Rotated once past three lines' worth: [1, torn, 3, 4] aside, [5] fresh.
    EXPECT_EQ(journal.read(), (std::vector<JournalEntry>{entry(1), entry(3), entry(4), entry(5)}));
    EXPECT_TRUE(readWholeFile(dir / "journal.1.jsonl").has_value());
}

}  // namespace
}  // namespace tavra
