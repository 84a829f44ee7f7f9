#include "platform/FileActivityMonitor.h"

#include <gtest/gtest.h>

#include <asio/io_context.hpp>
#include <chrono>
#include <fstream>

#include "support/TempDir.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

void touch(const fs::path& path) {
    std::ofstream(path) << "x";
}

class FileActivityMonitorTest : public ::testing::Test {
protected:
    testing::TempDir dir;
    std::string root = (dir / "repo").string();
    asio::io_context context;
    std::vector<std::string> calls;
    std::vector<std::string> logLines;
    std::unique_ptr<FileActivityMonitor> monitor = std::make_unique<FileActivityMonitor>(
        context, [this](const std::string& changed) { calls.push_back(changed); },
        [this](const std::string& line) { logLines.push_back(line); });

    FileActivityMonitorTest() { fs::create_directories(fs::path(root) / "src"); }

    // Runs the context for `duration`, or until `calls` has `count` entries.
    void runFor(std::chrono::milliseconds duration, std::size_t count = SIZE_MAX) {
        auto end = std::chrono::steady_clock::now() + duration;
        while (calls.size() < count && std::chrono::steady_clock::now() < end) {
            context.restart();
            context.run_for(10ms);
        }
    }
};

TEST_F(FileActivityMonitorTest, WritesCountExceptInNoiseAndNewDirectoriesAreWatched) {
    fs::create_directories(fs::path(root) / ".git");
    monitor->watch(root);
    touch(fs::path(root) / ".git" / "index");
    runFor(300ms);
    EXPECT_TRUE(calls.empty());
    touch(fs::path(root) / "src" / "main.c");
    runFor(5s, 1);
    EXPECT_EQ(calls, std::vector<std::string>{root});

    // A tree made at once is walked as it appears, noise left out; the
    // write at its bottom comes in the one paced call at the interval's end.
    auto before = monitor->watchCount();
    fs::create_directories(fs::path(root) / "a" / "b" / "c");
    fs::create_directories(fs::path(root) / "a" / "build" / "deep");
    runFor(300ms);
    EXPECT_EQ(monitor->watchCount(), before + 3);
    touch(fs::path(root) / "a" / "b" / "c" / "f");
    runFor(5s, 2);
    EXPECT_EQ(calls.size(), 2u);
    runFor(300ms);
    EXPECT_EQ(calls.size(), 2u);  // the mkdir and the write were folded into one call

    // A directory renamed within the tree is watched at its new place.
    fs::rename(fs::path(root) / "a", fs::path(root) / "moved");
    runFor(2500ms, 3);
    touch(fs::path(root) / "moved" / "b" / "c" / "g");
    runFor(5s, 4);
    EXPECT_EQ(calls.size(), 4u);
    EXPECT_EQ(monitor->watchCount(), before + 3);
    EXPECT_TRUE(logLines.empty());
}

TEST_F(FileActivityMonitorTest, NoiseTreesAreNeverWalked) {
    for (int i = 0; i < 500; ++i)
        fs::create_directories(fs::path(root) / "node_modules" / std::to_string(i) / "lib");
    fs::create_directories(fs::path(root) / "target" / "debug");
    monitor->watch(root);
    EXPECT_EQ(monitor->watchCount(), 2u);  // the root and src
    touch(fs::path(root) / "node_modules" / "7" / "lib" / "index.js");
    fs::create_directories(fs::path(root) / "dist" / "assets");
    runFor(300ms);
    EXPECT_EQ(monitor->watchCount(), 2u);
    // Making "dist" is a change in the root directory itself, under a noise name.
    EXPECT_TRUE(calls.empty());
}

TEST_F(FileActivityMonitorTest, SyncFollowsTheGivenSetAndRetriesMissingRoots) {
    std::string other = (dir / "other").string();
    std::string missing = (dir / "later").string();
    fs::create_directories(other);
    monitor->sync({root, missing});
    EXPECT_EQ(monitor->watchedRoots(), (std::set<std::string>{root}));
    monitor->watch(root);
    EXPECT_EQ(monitor->watchCount(), 2u);
    fs::create_directories(missing);
    monitor->sync({other, missing});
    EXPECT_EQ(monitor->watchedRoots(), (std::set<std::string>{other, missing}));
    EXPECT_EQ(monitor->watchCount(), 2u);
    touch(fs::path(root) / "src" / "unwatched.c");
    touch(fs::path(other) / "x");
    runFor(5s, 1);
    runFor(200ms);
    EXPECT_EQ(calls, std::vector<std::string>{other});
    monitor->sync({});
    EXPECT_TRUE(monitor->watchedRoots().empty());
    EXPECT_EQ(monitor->watchCount(), 0u);
}

TEST_F(FileActivityMonitorTest, OverlappingRootsShareWatchesAndNothingIsCalledAfterDestruction) {
    std::string inner = (fs::path(root) / "src").string();
    monitor->sync({root, inner});
    EXPECT_EQ(monitor->watchCount(), 2u);
    touch(fs::path(inner) / "a.c");
    runFor(5s, 2);
    EXPECT_EQ(calls, (std::vector<std::string>{root, inner}));
    monitor->unwatch(inner);
    EXPECT_EQ(monitor->watchCount(), 2u);  // still the outer root's
    touch(fs::path(inner) / "b.c");        // paced: due at the interval's end
    runFor(200ms);
    monitor.reset();
    runFor(2500ms);
    EXPECT_EQ(calls.size(), 2u);
}

}  // namespace
}  // namespace tavra
