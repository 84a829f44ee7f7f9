// The real tavrad beside the real tavra-helper, end to end. Both live in one
// private mount namespace with fresh tmpfs on /run and /var/lib, so the
// helper's fixed socket and state never touch the machine's own and the
// system bus is out of reach; the daemon gets a private home. The test talks
// to the helper through /proc/{pid}/root and to the daemon through its
// socket in the private home.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "kit/AtomicFile.h"
#include "kit/Clients.h"
#include "kit/DaemonClient.h"
#include "support/ProcessTree.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;

// A child running `argv` with its output in `log` and HOME set to `home`.
struct Child {
    pid_t pid = -1;
    std::optional<int> status;

    Child(std::vector<std::string> argv, const fs::path& log, const fs::path& home) {
        std::vector<char*> raw;  // built before the fork: the child only calls what is safe there
        for (auto& a : argv) raw.push_back(a.data());
        raw.push_back(nullptr);
        const std::string homeText = home.string();
        pid = ::fork();
        if (pid == 0) {
            int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            ::dup2(fd, 1);
            ::dup2(fd, 2);
            ::setenv("HOME", homeText.c_str(), 1);
            ::unsetenv("XDG_DATA_HOME");
            ::unsetenv("XDG_STATE_HOME");
            ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
            ::unsetenv("TAVRA_NO_HELPER");
            ::execv(raw[0], raw.data());
            ::_exit(127);
        }
    }
    ~Child() {
        if (pid > 0 && !status) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }
    bool exited(bool wait) {
        int code = 0;
        if (!status && ::waitpid(pid, &code, wait ? 0 : WNOHANG) == pid) status = code;
        return status.has_value();
    }
    int exitCode() { return exited(true) && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1; }
};

class DaemonExecutableTest : public ::testing::Test {
protected:
    testing::TempDir dir;
    fs::path helperExecutable, daemonExecutable;

    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root for a private mount namespace";
        std::error_code error;
        const char* build = std::getenv("TAVRA_BUILD_DIR");
        const fs::path tree =
            build ? fs::path(build) : fs::read_symlink("/proc/self/exe", error).parent_path().parent_path();
        helperExecutable = tree / "src/helper/tavra-helper";
        daemonExecutable = tree / "src/daemon/tavrad";
        if (error || !fs::exists(helperExecutable) || !fs::exists(daemonExecutable))
            GTEST_SKIP() << "no built tavra-helper and tavrad found (TAVRA_BUILD_DIR)";
        if (std::system("unshare -m true >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "unshare -m is not available";
    }

    std::string log() const { return readWholeFile(dir / "log").value_or(""); }

    // The helper founds the namespace; the daemon joins it.
    std::unique_ptr<Child> startHelper() {
        return std::make_unique<Child>(
            std::vector<std::string>{
                "/usr/bin/unshare", "-m", "sh", "-c",
                "mount -t tmpfs none /run && mount -t tmpfs none /var/lib && exec \"$0\"",
                helperExecutable.string()},
            dir / "log", dir / "home");
    }
    std::unique_ptr<Child> inNamespace(pid_t holder, std::vector<std::string> arguments) {
        std::vector<std::string> argv{"/usr/bin/nsenter",       "-t", std::to_string(holder), "-m", "--",
                                      daemonExecutable.string()};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return std::make_unique<Child>(argv, dir / "log", dir / "home");
    }

    HelperStatus helperStatus(pid_t helper) {
        return HelperClient{"/proc/" + std::to_string(helper) + "/root/run/com.tavra.helper.sock"}.send(
            HelperRequest::heartbeat(), 5);
    }
    DaemonClient daemonClient() { return {(dir / "home/.local/share/tavra/tavrad.sock").string()}; }

    template <class Predicate>
    bool waitFor(Predicate predicate) {
        for (int i = 0; i < 400; ++i) {
            try {
                if (predicate()) return true;
            } catch (const std::exception&) {
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }
};

TEST_F(DaemonExecutableTest, HoldsFreezesAndLeavesNothingBehindAfterAKillAndARecover) {
    fs::create_directories(dir / "home");
    auto helper = startHelper();
    ASSERT_TRUE(waitFor([&] { return helperStatus(helper->pid).version.size() > 0; })) << log();
    auto daemon = inNamespace(helper->pid, {});
    ASSERT_TRUE(waitFor([&] { return daemonClient().isRunning(); })) << log();

    testing::ProcessTree agent([](int fd) { testing::growTree(fd, 1, 2); });
    auto children = agent.reported(2);
    std::vector<Pid> everyone{agent.root(), children[0], children[1]};

    AgentEvent event;
    event.agent = AgentKind::claude;
    event.sessionID = "e2e";
    event.kind = AgentEvent::Kind::promptSubmitted;
    event.cwd = dir.path().string();
    event.pid = agent.root();
    // A second run without a process cannot be paused, so it keeps the machine held.
    AgentEvent other = event;
    other.sessionID = "keep";
    other.pid.reset();
    ASSERT_EQ(daemonClient().send(DaemonRequest::hook({event, other}), 5), DaemonResponse::ok()) << log();

    auto status = daemonClient().status();
    ASSERT_EQ(status.runs.size(), 2u);
    EXPECT_EQ(status.runs[0].run.status, RunStatus::working);
    EXPECT_EQ(status.runs[0].resumeCommand, "cd '" + dir.path().string() + "' && claude --resume e2e");
    EXPECT_TRUE(status.plan.preventIdleSleep);
    EXPECT_TRUE(status.system.helperAvailable);
    EXPECT_EQ(helperStatus(helper->pid).plan,
              (HelperPlan{status.plan.disableLidSleep, status.plan.deferOSUpdates}));

    ASSERT_EQ(daemonClient().send(DaemonRequest::command(UserCommand::pause()), 5), DaemonResponse::ok());
    for (Pid pid : everyone) EXPECT_TRUE(testing::waitForState(pid, testing::isStoppedState)) << pid;
    EXPECT_TRUE(daemonClient().status().plan.preventIdleSleep);

    // A crash: nothing runs the daemon's own clean-up.
    ::kill(daemon->pid, SIGKILL);
    daemon->exited(true);
    for (Pid pid : everyone) EXPECT_TRUE(testing::waitForState(pid, testing::isStoppedState)) << pid;
    EXPECT_NE(helperStatus(helper->pid).plan, HelperPlan::released);

    auto recover = inNamespace(helper->pid, {"--recover"});
    EXPECT_EQ(recover->exitCode(), 0) << log();
    for (Pid pid : everyone)
        EXPECT_TRUE(testing::waitForState(pid, [](char state) { return !testing::isStoppedState(state); }))
            << pid;
    EXPECT_EQ(helperStatus(helper->pid).plan, HelperPlan::released);

    // A new daemon: the journal and the run survived, and the run is no longer paused.
    daemon = inNamespace(helper->pid, {});
    ASSERT_TRUE(waitFor([&] { return daemonClient().isRunning(); })) << log();
    auto response = daemonClient().send(DaemonRequest::report(dateFromEpochSeconds(0)), 5);
    auto* report = std::get_if<DaemonResponse::Report>(&response.value);
    ASSERT_NE(report, nullptr) << log();
    ASSERT_EQ(report->report.runs.size(), 2u);
    auto runs = daemonClient().status().runs;
    ASSERT_EQ(runs.size(), 2u);
    const auto& e2e = runs[0].run.key.session == "e2e" ? runs[0] : runs[1];
    EXPECT_EQ(e2e.run.status, RunStatus::idle);

    ::kill(daemon->pid, SIGTERM);
    EXPECT_EQ(daemon->exitCode(), 0) << log();
    EXPECT_NE(log().find("released all holds"), std::string::npos);
}

}  // namespace
}  // namespace tavra
