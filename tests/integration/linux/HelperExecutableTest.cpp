// The real tavra-helper, end to end. Its socket and state paths are fixed,
// so each run gets a private mount namespace with fresh tmpfs on /run and
// /var/lib: the test never touches the machine's own files, and with /run
// hidden the system bus is out of reach too. The test reaches the helper's
// files through /proc/{pid}/root.

#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include "kit/HelperClient.h"
#include "support/Children.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;

class HelperExecutableTest : public ::testing::Test {
protected:
    testing::TempDir dir;
    const fs::path executable = testing::buildTree() / "src/helper/tavra-helper";
    testing::Children children{dir / "log", {{"DBUS_SYSTEM_BUS_ADDRESS", ""}}};
    pid_t pid = -1;

    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root for a private mount namespace";
        if (!fs::exists(executable)) GTEST_SKIP() << "no built tavra-helper found (TAVRA_BUILD_DIR)";
        if (std::system("unshare -m true >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "unshare -m is not available";
    }

    // The helper in a mount namespace of its own with fresh /run and /var/lib.
    void start(std::vector<std::string> arguments, const std::string& runMountOptions = "") {
        std::vector<std::string> argv = {
            "/usr/bin/unshare",
            "-m",
            "sh",
            "-c",
            "mount -t tmpfs " + runMountOptions +
                " none /run && mount -t tmpfs none /var/lib && exec \"$0\" \"$@\"",
            executable.string()};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        pid = children.start(argv);
    }
    fs::path root() const { return "/proc/" + std::to_string(pid) + "/root"; }
    std::string socketPath() const { return (root() / "run/com.tavra.helper.sock").string(); }
    std::string file(const fs::path& path) const { return readWholeFile(root() / path).value_or(""); }

    // The log's lines; with `stamped`, each must carry a time stamp, which is cut off.
    std::vector<std::string> lines(bool stamped = true) const {
        std::vector<std::string> out;
        std::istringstream stream(children.output());
        const std::regex stamp(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ .+)");
        for (std::string line; std::getline(stream, line);) {
            EXPECT_TRUE(!stamped || std::regex_match(line, stamp)) << line;
            out.push_back(stamped ? line.substr(std::min<std::size_t>(21, line.size())) : line);
        }
        return out;
    }
};

TEST_F(HelperExecutableTest, ServesHoldsAndRestoresOnSilenceAndOnSignal) {
    start({"--allow-uid", "501", "--allow-uid", "abc"});
    ASSERT_TRUE(testing::eventually([&] {
        HelperClient{socketPath()}.send(HelperRequest::heartbeat(), 5);
        return true;
    })) << children.output();

    auto status = HelperClient{socketPath()}.send(HelperRequest::apply({true, true}), 30);
    EXPECT_TRUE(status.lastHeartbeat.has_value());
    EXPECT_EQ(status, (HelperStatus{"0.5.0", {true, true}, 30.0, status.lastHeartbeat}));
    EXPECT_EQ(file("var/lib/tavra/helper-state.json"), R"({"originalAutoInstall":"absent"})");
    EXPECT_TRUE(fs::exists(root() / "run/tavra/update-deferral.lease"));
    EXPECT_EQ(fs::status(socketPath()).permissions(), fs::perms(0666));

    // Silence: the watchdog lets go between 30 and 35 seconds after the request.
    const auto silent = std::chrono::steady_clock::now();
    auto log = lines();
    while (log.size() < 8 && std::chrono::steady_clock::now() - silent < std::chrono::seconds(60)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        log = lines();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - silent, std::chrono::seconds(40));  // 35 and a busy machine
    ASSERT_GE(log.size(), 8u) << children.output();
    EXPECT_EQ(log[5].rfind("WATCHDOG: no heartbeat for 3", 0), 0u) << log[5];
    EXPECT_EQ(log[7], "restored defaults (watchdog)");
    EXPECT_FALSE(fs::exists(root() / "run/tavra/update-deferral.lease"));
    EXPECT_EQ(file("var/lib/tavra/helper-state.json"), "{}");
    HelperClient{socketPath()}.send(HelperRequest::apply({true, true}), 30);

    // Two in a row: the first restores and exits, neither kills before that.
    ::kill(pid, SIGINT);
    ::kill(pid, SIGTERM);
    EXPECT_EQ(children.exitCode(pid), 0);
    log = lines();
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
    start({"--allow-uid", "--allow-uid", "501", "--verbose"}, "-o ro");
    EXPECT_EQ(children.exitCode(pid), 1) << children.output();
    auto log = lines(false);
    ASSERT_EQ(log.size(), 3u) << children.output();
    EXPECT_EQ(log[0].substr(21), "tavra-helper 0.5.0 starting; allowed uids [0]");
    EXPECT_EQ(log[1].substr(21), "restored defaults (launch)");
    EXPECT_EQ(log[2], "tavra-helper failed to start: bind failed: Read-only file system");
}

}  // namespace
}  // namespace tavra
