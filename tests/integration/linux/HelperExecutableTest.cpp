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
#include <regex>
#include <sstream>
#include <thread>

#include "kit/AtomicFile.h"
#include "kit/HelperClient.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;

std::string readFile(const fs::path& path) {
    return readWholeFile(path).value_or("");
}

// One tavra-helper in its own mount namespace, output captured in a file.
struct NamespacedHelper {
    fs::path logFile;
    pid_t pid = -1;
    std::optional<int> status;

    NamespacedHelper(const fs::path& executable, const fs::path& logPath, std::vector<std::string> arguments,
                     const std::string& runMountOptions = "")
        : logFile(logPath) {
        std::string script = "mount -t tmpfs " + runMountOptions +
                             " none /run && mount -t tmpfs none /var/lib && exec \"$0\" \"$@\"";
        std::vector<std::string> argv = {"unshare", "-m", "sh", "-c", script, executable.string()};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        std::vector<char*> raw;  // built before the fork: the child only calls what is safe there
        for (auto& a : argv) raw.push_back(a.data());
        raw.push_back(nullptr);
        pid = ::fork();
        if (pid == 0) {
            int fd = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            ::dup2(fd, 1);
            ::dup2(fd, 2);
            ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
            ::execv("/usr/bin/unshare", raw.data());
            ::_exit(127);
        }
    }
    ~NamespacedHelper() {
        if (pid > 0 && !status) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }

    fs::path root() const { return "/proc/" + std::to_string(pid) + "/root"; }
    std::string socketPath() const { return (root() / "run/com.tavra.helper.sock").string(); }

    // The log's lines; with `stamped`, each must carry a time stamp, which is cut off.
    std::vector<std::string> log(bool stamped = true) const {
        std::vector<std::string> lines;
        std::istringstream stream(readFile(logFile));
        const std::regex stamp(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ .+)");
        for (std::string line; std::getline(stream, line);) {
            EXPECT_TRUE(!stamped || std::regex_match(line, stamp)) << line;
            lines.push_back(stamped ? line.substr(std::min<std::size_t>(21, line.size())) : line);
        }
        return lines;
    }

    // Waits until the helper answers a heartbeat.
    bool waitUntilServing() {
        for (int i = 0; i < 600 && !exited(false); ++i) {
            try {
                HelperClient{socketPath()}.send(HelperRequest::heartbeat(), 5);
                return true;
            } catch (const std::exception&) {
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
        }
        return false;
    }

    bool exited(bool wait) {
        int code = 0;
        if (!status && ::waitpid(pid, &code, wait ? 0 : WNOHANG) == pid) status = code;
        return status.has_value();
    }
    int exitCode() { return exited(true) && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1; }
};

class HelperExecutableTest : public ::testing::Test {
protected:
    testing::TempDir dir;
    fs::path executable;

    // TAVRA_BUILD_DIR names the build tree; without it, the tree this test
    // executable was built in (build/tests/tavra_integration_tests).
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root for a private mount namespace";
        std::error_code error;
        const char* build = std::getenv("TAVRA_BUILD_DIR");
        executable = (build ? fs::path(build)
                            : fs::read_symlink("/proc/self/exe", error).parent_path().parent_path()) /
                     "src/helper/tavra-helper";
        if (error || !fs::exists(executable)) GTEST_SKIP() << "no built tavra-helper found (TAVRA_BUILD_DIR)";
        if (std::system("unshare -m true >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "unshare -m is not available";
    }
};

TEST_F(HelperExecutableTest, ServesHoldsAndRestoresOnSilenceAndOnSignal) {
    NamespacedHelper helper(executable, dir / "log", {"--allow-uid", "501", "--allow-uid", "abc"});
    ASSERT_TRUE(helper.waitUntilServing()) << readFile(dir / "log");

    auto status = HelperClient{helper.socketPath()}.send(HelperRequest::apply({true, true}), 30);
    EXPECT_TRUE(status.lastHeartbeat.has_value());
    EXPECT_EQ(status, (HelperStatus{"0.5.0", {true, true}, 30.0, status.lastHeartbeat}));
    EXPECT_EQ(readFile(helper.root() / "var/lib/tavra/helper-state.json"),
              R"({"originalAutoInstall":"absent"})");
    EXPECT_TRUE(fs::exists(helper.root() / "run/tavra/update-deferral.lease"));
    EXPECT_EQ(fs::status(helper.socketPath()).permissions(), fs::perms(0666));

    // Silence: the watchdog lets go between 30 and 35 seconds after the request.
    const auto silent = std::chrono::steady_clock::now();
    auto log = helper.log();
    while (log.size() < 8 && std::chrono::steady_clock::now() - silent < std::chrono::seconds(60)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        log = helper.log();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - silent, std::chrono::seconds(40));  // 35 and a busy machine
    ASSERT_GE(log.size(), 8u) << readFile(dir / "log");
    EXPECT_EQ(log[5].rfind("WATCHDOG: no heartbeat for 3", 0), 0u) << log[5];
    EXPECT_EQ(log[7], "restored defaults (watchdog)");
    EXPECT_FALSE(fs::exists(helper.root() / "run/tavra/update-deferral.lease"));
    EXPECT_EQ(readFile(helper.root() / "var/lib/tavra/helper-state.json"), "{}");
    HelperClient{helper.socketPath()}.send(HelperRequest::apply({true, true}), 30);

    // Two in a row: the first restores and exits, neither kills before that.
    ::kill(helper.pid, SIGINT);
    ::kill(helper.pid, SIGTERM);
    EXPECT_EQ(helper.exitCode(), 0);
    log = helper.log();
    EXPECT_EQ(log[0], "tavra-helper 0.5.0 starting; allowed uids [0, 501]");
    EXPECT_EQ(log[1], "restored defaults (launch)");
    // With /run hidden the system bus cannot be reached: logged, and the helper carries on.
    EXPECT_EQ(log[2].rfind("org.freedesktop.login1.Manager.Inhibit failed: ", 0), 0u) << log[2];
    EXPECT_EQ(log[3], "disablesleep → true");
    EXPECT_EQ(log[4], "deferred automatic system updates");
    EXPECT_EQ(log[log.size() - 2], "restored automatic system updates setting");
    EXPECT_EQ(log.back(), "restored defaults (signal)");
}

TEST_F(HelperExecutableTest, FailedBindEndsWithStatusOneAfterTheLaunchRestore) {
    // An option that takes its value eats the next one, even if that looks like an option.
    NamespacedHelper helper(executable, dir / "log", {"--allow-uid", "--allow-uid", "501", "--verbose"},
                            "-o ro");
    EXPECT_EQ(helper.exitCode(), 1) << readFile(dir / "log");
    auto log = helper.log(false);
    ASSERT_EQ(log.size(), 3u) << readFile(dir / "log");
    EXPECT_EQ(log[0].substr(21), "tavra-helper 0.5.0 starting; allowed uids [0]");
    EXPECT_EQ(log[1].substr(21), "restored defaults (launch)");
    EXPECT_EQ(log[2], "tavra-helper failed to start: bind failed: Read-only file system");
}

}  // namespace
}  // namespace tavra
