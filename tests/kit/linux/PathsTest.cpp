#include "kit/Paths.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <fstream>

#include "support/ScopedEnv.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;
using testing::ScopedEnv;

void touch(const fs::path& path, fs::perms perms) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << "#!/bin/sh\n";
    fs::permissions(path, perms);
}

// A fresh home with no XDG variables, so the defaults apply.
class PathsTest : public ::testing::Test {
protected:
    testing::TempDir dir;
    fs::path homeDir = dir / "h";
    ScopedEnv home{"HOME", homeDir.string()};
    ScopedEnv data{"XDG_DATA_HOME", std::nullopt};
    ScopedEnv stateHome{"XDG_STATE_HOME", std::nullopt};
    ScopedEnv configHome{"XDG_CONFIG_HOME", std::nullopt};

    void SetUp() override { fs::create_directory(homeDir); }
};

TEST_F(PathsTest, UserPlacesFollowTheHomeAndAbsoluteXdgDirectories) {
    const mode_t oldMask = ::umask(027);  // the support directory is private whatever the mask
    EXPECT_EQ(TavraPaths::home(), homeDir);
    EXPECT_EQ(TavraPaths::config(), homeDir / ".local/share/tavra/config.json");
    EXPECT_EQ(TavraPaths::daemonServiceFile(), homeDir / ".config/systemd/user/com.tavra.daemon.service");
    EXPECT_EQ(fs::status(homeDir / ".local/share/tavra").permissions(), fs::perms(0700));
    fs::permissions(homeDir / ".local/share/tavra", fs::perms(0750));  // an existing mode stays
    EXPECT_EQ(TavraPaths::state().parent_path(), homeDir / ".local/share/tavra");
    EXPECT_EQ(fs::status(homeDir / ".local/share/tavra").permissions(), fs::perms(0750));
    EXPECT_EQ(fs::status(TavraPaths::logsDir()).permissions(), fs::perms(0750)) << "logs follow the umask";
    ::umask(oldMask);

    ScopedEnv units("XDG_CONFIG_HOME", (dir / "cfg").string());
    EXPECT_EQ(TavraPaths::daemonServiceFile(), dir / "cfg/systemd/user/com.tavra.daemon.service");

    ScopedEnv empty("HOME", "");  // falls back to the password database
    const struct passwd* entry = ::getpwuid(::getuid());
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(TavraPaths::home(), fs::path(entry->pw_dir));
}

TEST_F(PathsTest, SiblingPrefersTheProgramsOwnDirectoryThenTheUsersInstallDirectory) {
    const fs::path own = dir / "opt/bin";
    const fs::path installed = homeDir / ".local/bin/tool";
    fs::create_directories(own / "tool");  // a directory of that name does not count
    touch(installed, fs::perms(0600));     // nor does a file that is not executable
    EXPECT_EQ(TavraPaths::sibling("tool", own), own / "tool") << "none anywhere: the first candidate";
    fs::permissions(installed, fs::perms(0750));
    EXPECT_EQ(TavraPaths::sibling("tool", own), installed);
    fs::remove(own / "tool");
    touch(own / "tool", fs::perms(0750));
    EXPECT_EQ(TavraPaths::sibling("tool", own), own / "tool");
}

}  // namespace
}  // namespace tavra
