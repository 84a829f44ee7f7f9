#include "kit/Paths.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "kit/UnixSocket.h"
#include "support/ScopedEnv.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;
using testing::ScopedEnv;
using testing::TempDir;

mode_t modeOf(const fs::path& path) {
    struct stat st {};
    EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
    return st.st_mode & 07777;
}

// A fresh home with no XDG variables, so the defaults apply.
class PathsTest : public ::testing::Test {
protected:
    TempDir dir;
    fs::path homeDir = dir / "h";
    ScopedEnv home{"HOME", homeDir.string()};
    ScopedEnv data{"XDG_DATA_HOME", std::nullopt};
    ScopedEnv stateHome{"XDG_STATE_HOME", std::nullopt};
    ScopedEnv configHome{"XDG_CONFIG_HOME", std::nullopt};

    void SetUp() override { fs::create_directory(homeDir); }
};

void touch(const fs::path& path, fs::perms perms) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << "#!/bin/sh\n";
    fs::permissions(path, perms);
}

const auto kExecutable = fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec;
const auto kPlain = fs::perms::owner_read | fs::perms::owner_write;

TEST_F(PathsTest, UserPlacesFollowTheHomeDirectory) {
    EXPECT_EQ(TavraPaths::home(), homeDir);
    const fs::path support = homeDir / ".local/share/tavra";
    EXPECT_EQ(TavraPaths::supportDir(), support);
    EXPECT_EQ(TavraPaths::config(), support / "config.json");
    EXPECT_EQ(TavraPaths::journal(), support / "journal.jsonl");
    EXPECT_EQ(TavraPaths::state(), support / "state.json");
    EXPECT_EQ(TavraPaths::resumeScripts(), support / "resume");
    EXPECT_EQ(TavraPaths::daemonSocket(), (support / "tavrad.sock").string());
    EXPECT_EQ(TavraPaths::logsDir(), homeDir / ".local/state/tavra");
    EXPECT_EQ(TavraPaths::launchAgentPlist(), homeDir / ".config/systemd/user/com.tavra.daemon.service");
    EXPECT_EQ(TavraPaths::installDir(), homeDir / ".local/bin");
}

TEST_F(PathsTest, SupportDirIsCreatedPrivateWithItsParentsButExistingModesStay) {
    const mode_t oldMask = ::umask(022);
    const fs::path support = TavraPaths::supportDir();
    EXPECT_TRUE(fs::is_directory(support));
    EXPECT_EQ(modeOf(support), 0700u);
    EXPECT_EQ(modeOf(homeDir / ".local"), 0700u);

    fs::permissions(support, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec);
    EXPECT_EQ(TavraPaths::config().parent_path(), support);
    EXPECT_EQ(modeOf(support), 0750u);

    const fs::path logs = TavraPaths::logsDir();
    EXPECT_TRUE(fs::is_directory(logs));
    EXPECT_EQ(modeOf(logs), 0755u);
    ::umask(oldMask);
}

TEST_F(PathsTest, AbsoluteXdgDirectoriesAreHonouredAndRelativeOnesIgnored) {
    ScopedEnv dataHome("XDG_DATA_HOME", (dir / "data").string());
    ScopedEnv logsHome("XDG_STATE_HOME", "relative/state");
    ScopedEnv units("XDG_CONFIG_HOME", (dir / "cfg").string());
    EXPECT_EQ(TavraPaths::supportDir(), dir / "data/tavra");
    EXPECT_EQ(modeOf(dir / "data/tavra"), 0700u);
    EXPECT_EQ(TavraPaths::logsDir(), homeDir / ".local/state/tavra");
    EXPECT_EQ(TavraPaths::launchAgentPlist(), dir / "cfg/systemd/user/com.tavra.daemon.service");
}

TEST_F(PathsTest, EmptyHomeFallsBackToThePasswordDatabase) {
    ScopedEnv empty("HOME", "");
    const struct passwd* entry = ::getpwuid(::getuid());
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(TavraPaths::home(), fs::path(entry->pw_dir));
}

TEST_F(PathsTest, DaemonSocketRefusesPathsBeyondTheTransportLimit) {
    // Pad the data home so that the socket lands on exactly 103 bytes, then
    // on one more.
    const std::string base = dir.path().string() + "/";
    const std::size_t fixed = base.size() + std::string("/tavra/tavrad.sock").size();
    ASSERT_LT(fixed, 100u);
    {
        ScopedEnv dataHome("XDG_DATA_HOME", base + std::string(103 - fixed, 'a'));
        EXPECT_EQ(TavraPaths::daemonSocket().size(), 103u);
    }
    ScopedEnv dataHome("XDG_DATA_HOME", base + std::string(104 - fixed, 'b'));
    const std::string tooLong = base + std::string(104 - fixed, 'b') + "/tavra/tavrad.sock";
    try {
        TavraPaths::daemonSocket();
        FAIL() << "no error for a path of 104 bytes";
    } catch (const SocketError& e) {
        EXPECT_EQ(e.value(), SocketError::Case(SocketError::PathTooLong{tooLong}));
        EXPECT_EQ(e.description(), "socket path too long: " + tooLong);
    }
}

TEST_F(PathsTest, ExecutableDirResolvesSymbolicLinks) {
    const fs::path real = dir / "opt/tavra/bin/tavra";
    touch(real, kExecutable);
    fs::create_directories(dir / "usr/bin");
    fs::create_symlink(real, dir / "usr/bin/tavra");
    fs::create_directory_symlink(dir / "usr/bin", dir / "linkdir");

    EXPECT_EQ(TavraPaths::executableDirFrom(real), dir / "opt/tavra/bin");
    EXPECT_EQ(TavraPaths::executableDirFrom(dir / "usr/bin/tavra"), dir / "opt/tavra/bin");
    EXPECT_EQ(TavraPaths::executableDirFrom(dir / "linkdir/tavra"), dir / "opt/tavra/bin");
    EXPECT_EQ(TavraPaths::executableDirFrom(dir / "usr/bin/../bin/tavra"), dir / "opt/tavra/bin");

    // A relative argv[0] is taken from the current directory.
    const fs::path cwd = fs::current_path();
    fs::current_path(dir / "usr");
    EXPECT_EQ(TavraPaths::executableDirFrom("bin/tavra"), dir / "opt/tavra/bin");
    fs::current_path(cwd);
}

TEST_F(PathsTest, ExecutableDirOfThisProcessHoldsTheTestProgram) {
    const fs::path self = fs::canonical("/proc/self/exe");
    EXPECT_EQ(TavraPaths::executableDir(), self.parent_path());
    EXPECT_EQ(TavraPaths::sibling(self.filename().string()), self);
}

TEST_F(PathsTest, SiblingPrefersTheProgramsOwnDirectoryThenInstallDirThenBundlePlaces) {
    const fs::path macos = dir / "App/Contents/MacOS";
    fs::create_directories(macos);
    const fs::path besides = macos / "tool";
    const fs::path installed = homeDir / ".local/bin/tool";
    const fs::path resources = dir / "App/Contents/Resources/bin/tool";
    const fs::path helpers = dir / "App/Contents/Helpers/tool";

    // None anywhere: candidate 1 even though it does not exist.
    EXPECT_EQ(TavraPaths::sibling("tool", macos), besides);

    touch(helpers, kExecutable);
    EXPECT_EQ(TavraPaths::sibling("tool", macos), helpers);
    touch(resources, kExecutable);
    EXPECT_EQ(TavraPaths::sibling("tool", macos), resources);
    touch(installed, kExecutable);
    EXPECT_EQ(TavraPaths::sibling("tool", macos), installed);
    touch(besides, kPlain);  // present but not executable: does not count
    EXPECT_EQ(TavraPaths::sibling("tool", macos), installed);
    fs::permissions(besides, kExecutable);
    EXPECT_EQ(TavraPaths::sibling("tool", macos), besides);
}

TEST_F(PathsTest, SiblingSkipsDirectoriesAndNonExecutablesEverywhere) {
    const fs::path bin = dir / "bin";
    fs::create_directories(bin / "tool");  // a directory of that name
    touch(homeDir / ".local/bin/tool", kPlain);
    touch(dir / "Resources/bin/tool", kPlain);
    EXPECT_EQ(TavraPaths::sibling("tool", bin), bin / "tool");
}

}  // namespace
}  // namespace tavra
