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
    std::unique_ptr<FileActivityMonitor> monitor = std::make_unique<FileActivityMonitor>(
        context, [this](const std::string& changed) { calls.push_back(changed); },
        [](const std::string& line) { ADD_FAILURE() << "logged: " << line; });

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
    EXPECT_EQ(calls.size(), 2u);  // the mkdir and the write folded into one call

    // A directory renamed within the tree is watched at its new place.
    fs::rename(fs::path(root) / "a", fs::path(root) / "moved");
    runFor(2500ms, 3);
    touch(fs::path(root) / "moved" / "b" / "c" / "g");
    runFor(5s, 4);
    EXPECT_EQ(calls.size(), 4u);
    EXPECT_EQ(monitor->watchCount(), before + 3);
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

TEST_F(FileActivityMonitorTest, SyncFollowsTheGivenSetAndOverlappingRootsShareWatches) {
    std::string inner = root + "/src";
    std::string missing = (dir / "later").string();
    monitor->sync({root, missing});
    EXPECT_EQ(monitor->watchedRoots(), (std::set<std::string>{root}));
    fs::create_directories(missing);
    monitor->sync({root, inner, missing});  // tried again
    EXPECT_EQ(monitor->watchCount(), 3u);   // src is watched once for both roots
    touch(fs::path(inner) / "a.c");
    runFor(5s, 2);
    EXPECT_EQ(calls, (std::vector<std::string>{root, inner}));
    monitor->sync({root, missing});
    EXPECT_EQ(monitor->watchCount(), 3u);  // src still the outer root's
    touch(fs::path(inner) / "b.c");        // paced: due at the interval's end
    runFor(200ms);
    monitor->sync({});
    EXPECT_EQ(monitor->watchCount(), 0u);
    runFor(2500ms);
    EXPECT_EQ(calls.size(), 2u);  // the due call went with its root
}

}  // namespace
}  // namespace tavra
