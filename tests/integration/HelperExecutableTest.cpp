// The real tavra-helper, end to end. Its socket and state paths are fixed,
// so each run gets a private mount namespace with fresh tmpfs on /run and
// /var/lib: the test never touches the machine's own files, and with /run
// hidden the system bus is out of reach too. The test reaches the helper's
// files through /proc/{pid}/root.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <regex>
#include <sstream>
#include <thread>

#include "kit/Clients.h"
#include "kit/UnixSocket.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

std::string readFile(const std::filesystem::path& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

// TAVRA_BUILD_DIR names the build tree; without it, the tree this test
// executable was built in (build/tests/tavra_integration_tests).
std::optional<std::filesystem::path> helperExecutable() {
    std::error_code error;
    std::filesystem::path build;
    if (const char* fromEnvironment = std::getenv("TAVRA_BUILD_DIR"))
        build = fromEnvironment;
    else
        build = std::filesystem::read_symlink("/proc/self/exe", error).parent_path().parent_path();
    auto path = build / "src/helper/tavra-helper";
    if (error || !std::filesystem::exists(path)) return std::nullopt;
    return path;
}

// One tavra-helper in its own mount namespace, output captured in a file.
class NamespacedHelper {
public:
    NamespacedHelper(const std::filesystem::path& executable, const std::filesystem::path& logFile,
                     std::vector<std::string> arguments, const std::string& runMountOptions = "")
        : logFile_(logFile) {
        std::string script = "mount -t tmpfs " + runMountOptions +
                             " none /run && mount -t tmpfs none /var/lib && exec \"$0\" \"$@\"";
        std::vector<std::string> argv = {"unshare", "-m", "sh", "-c", script, executable.string()};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        pid_ = ::fork();
        if (pid_ == 0) {
            int fd = ::open(logFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            ::dup2(fd, 1);
            ::dup2(fd, 2);
            ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
            std::vector<char*> raw;
            for (auto& a : argv) raw.push_back(a.data());
            raw.push_back(nullptr);
            ::execv("/usr/bin/unshare", raw.data());
            ::_exit(127);
        }
    }
    ~NamespacedHelper() {
        if (pid_ > 0 && !status_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }

    pid_t pid() const { return pid_; }
    std::filesystem::path root() const { return "/proc/" + std::to_string(pid_) + "/root"; }
    std::string socketPath() const { return (root() / "run/com.tavra.helper.sock").string(); }
    std::vector<std::string> log() const { return linesOf(readFile(logFile_)); }

    // Waits until the helper answers a heartbeat.
    bool waitUntilServing() {
        for (int i = 0; i < 600; ++i) {
            try {
                HelperClient{socketPath()}.send(HelperRequest::heartbeat(), 5);
                return true;
            } catch (const std::exception&) {
                if (exited()) return false;
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
        }
        return false;
    }

    bool exited() {
        if (status_) return true;
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) status_ = status;
        return status_.has_value();
    }

    int waitForExit() {
        if (!status_) {
            int status = 0;
            ::waitpid(pid_, &status, 0);
            status_ = status;
        }
        return *status_;
    }

private:
    std::filesystem::path logFile_;
    pid_t pid_ = -1;
    std::optional<int> status_;
};

class HelperExecutableTest : public ::testing::Test {
protected:
    testing::TempDir dir;
    std::filesystem::path executable;

    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root for a private mount namespace";
        auto found = helperExecutable();
        if (!found) GTEST_SKIP() << "no built tavra-helper found (TAVRA_BUILD_DIR)";
        executable = *found;
        if (std::system("unshare -m true >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "unshare -m is not available";
    }
};

TEST_F(HelperExecutableTest, ServesHoldsAndRestoresOnSignal) {
    NamespacedHelper helper(executable, dir / "log", {"--allow-uid", "501", "--allow-uid", "abc"});
    ASSERT_TRUE(helper.waitUntilServing()) << readFile(dir / "log");

    HelperClient client{helper.socketPath()};
    auto status = client.send(HelperRequest::apply({true, true}), 30);
    EXPECT_EQ(status.version, "0.5.0");
    EXPECT_EQ(status.watchdogSeconds, 30.0);
    EXPECT_EQ(status.plan, (HelperPlan{true, true}));
    EXPECT_TRUE(status.lastHeartbeat.has_value());
    EXPECT_EQ(readFile(helper.root() / "var/lib/tavra/helper-state.json"),
              R"({"originalAutoInstall":"absent"})");
    EXPECT_TRUE(std::filesystem::exists(helper.root() / "run/tavra/update-deferral.lease"));

    auto socketMode = std::filesystem::status(helper.socketPath()).permissions();
    EXPECT_EQ(socketMode, std::filesystem::perms(0666));

    // Two in a row: the first restores and exits, neither kills before that.
    ::kill(helper.pid(), SIGTERM);
    ::kill(helper.pid(), SIGTERM);
    int exitStatus = helper.waitForExit();
    ASSERT_TRUE(WIFEXITED(exitStatus)) << exitStatus;
    EXPECT_EQ(WEXITSTATUS(exitStatus), 0);

    auto log = helper.log();
    ASSERT_GE(log.size(), 5u) << readFile(dir / "log");
    std::regex line(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ .+)");
    for (const auto& l : log) EXPECT_TRUE(std::regex_match(l, line)) << l;
    auto message = [&](std::size_t i) { return log[i].substr(21); };
    EXPECT_EQ(message(0), "tavra-helper 0.5.0 starting; allowed uids [0, 501]");
    EXPECT_EQ(message(1), "restored defaults (launch)");
    // With /run hidden the system bus cannot be reached: logged, and the helper carries on.
    EXPECT_EQ(message(2).rfind("org.freedesktop.login1.Manager.Inhibit failed: ", 0), 0u) << message(2);
    EXPECT_EQ(message(3), "disablesleep → true");
    EXPECT_EQ(message(4), "deferred automatic macOS updates");
    EXPECT_EQ(log.back().substr(21), "restored defaults (signal)");
    EXPECT_EQ(log[log.size() - 2].substr(21), "restored automatic macOS updates setting");
}

TEST_F(HelperExecutableTest, OnlyRootWhenTheOptionIsEatenByItself) {
    NamespacedHelper helper(executable, dir / "log", {"--allow-uid", "--allow-uid", "501", "--verbose"});
    ASSERT_TRUE(helper.waitUntilServing()) << readFile(dir / "log");
    ::kill(helper.pid(), SIGINT);
    int exitStatus = helper.waitForExit();
    ASSERT_TRUE(WIFEXITED(exitStatus));
    EXPECT_EQ(WEXITSTATUS(exitStatus), 0);
    auto log = helper.log();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log[0].substr(21), "tavra-helper 0.5.0 starting; allowed uids [0]");
}

TEST_F(HelperExecutableTest, FailedBindEndsWithStatusOneAfterTheLaunchRestore) {
    NamespacedHelper helper(executable, dir / "log", {}, "-o ro");
    int exitStatus = helper.waitForExit();
    ASSERT_TRUE(WIFEXITED(exitStatus));
    EXPECT_EQ(WEXITSTATUS(exitStatus), 1) << readFile(dir / "log");
    auto log = helper.log();
    ASSERT_EQ(log.size(), 3u) << readFile(dir / "log");
    EXPECT_EQ(log[1].substr(21), "restored defaults (launch)");
    EXPECT_EQ(log[2], "tavra-helper failed to start: bind failed: Read-only file system");
}

}  // namespace
}  // namespace tavra
