#include "kit/AtomicFile.h"

#include <gtest/gtest.h>

#include "support/ErrorText.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;

std::size_t entriesIn(const fs::path& dir) {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
}

TEST(AtomicFile, FailureKeepsWhatWasThereAndNamesTheCause) {
    testing::TempDir dir;
    const fs::path missingDir = dir / "nowhere/config.json";
    EXPECT_EQ(testing::errorText<FileError>([&] { writeFileAtomically(missingDir, "x", 0600); }),
              "cannot write " + missingDir.string() + ": No such file or directory");
    const fs::path blocked = dir / "blocked";  // a directory in the way of the rename
    fs::create_directories(blocked / "inside");
    EXPECT_THROW(writeFileAtomically(blocked, "x", 0600), FileError);
    EXPECT_TRUE(fs::is_directory(blocked / "inside"));
    EXPECT_EQ(entriesIn(dir.path()), 1u);
}

}  // namespace
}  // namespace tavra
