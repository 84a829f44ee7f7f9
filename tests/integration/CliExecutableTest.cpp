// The real tavra against a real tavrad in a private home, without the root
// helper: what a user types, end to end over the daemon's socket.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "kit/AtomicFile.h"
#include "kit/DaemonClient.h"
#include "platform/Shell.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;

class CliExecutableTest : public ::testing::Test {
protected:
    testing::TempDir dir;
    fs::path tavra, tavrad;
    pid_t daemon = -1;
    pid_t agent = -1;

    void SetUp() override {
        std::error_code error;
        const char* build = std::getenv("TAVRA_BUILD_DIR");
        const fs::path tree =
            build ? fs::path(build) : fs::read_symlink("/proc/self/exe", error).parent_path().parent_path();
        tavra = tree / "src/cli/tavra";
        tavrad = tree / "src/daemon/tavrad";
        if (!fs::exists(tavra) || !fs::exists(tavrad))
            GTEST_SKIP() << "no built tavra and tavrad found (TAVRA_BUILD_DIR)";
        fs::create_directories(dir / "home");
    }

    void TearDown() override {
        for (pid_t pid : {daemon, agent}) {
            if (pid <= 0) continue;
            ::kill(pid, SIGCONT);
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }

    Shell::Environment environment() const {
        return {{"HOME", (dir / "home").string()},
                {"XDG_DATA_HOME", ""},
                {"XDG_STATE_HOME", ""},
                {"XDG_CONFIG_HOME", ""},
                {"TAVRA_NO_HELPER", "1"}};
    }

    pid_t start(const std::vector<std::string>& argv) {
        std::vector<std::string> words = argv;
        std::vector<char*> raw;
        for (auto& word : words) raw.push_back(word.data());
        raw.push_back(nullptr);
        auto env = environment();
        const std::string logPath = (dir / "log").string();
        pid_t pid = ::fork();
        if (pid == 0) {
            int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            ::dup2(log, 1);
            ::dup2(log, 2);
            for (const auto& [key, value] : env) ::setenv(key.c_str(), value.c_str(), 1);
            ::execv(raw[0], raw.data());
            ::_exit(127);
        }
        return pid;
    }

    ShellResult tavraSays(std::vector<std::string> args) {
        return Shell::run(tavra.string(), args, environment(), std::nullopt, 30.0);
    }

    DaemonClient client() const { return {(dir / "home/.local/share/tavra/tavrad.sock").string()}; }

    template <class Predicate>
    bool waitFor(Predicate predicate) {
        for (int i = 0; i < 200; ++i) {
            try {
                if (predicate()) return true;
            } catch (const std::exception&) {
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }
};

TEST_F(CliExecutableTest, StatusPauseResumeAndRunAgainstTheRealDaemon) {
    EXPECT_EQ(
        tavraSays({"status"}),
        (ShellResult{1, "",
                     "Tavra's daemon is not running. Start it with `systemctl --user start com.tavra.daemon` "
                     "or run `tavra setup`.\n"}));

    daemon = start({tavrad.string()});
    ASSERT_TRUE(waitFor([&] { return client().isRunning(); })) << readWholeFile(dir / "log").value_or("");
    agent = start({"/bin/sleep", "60"});

    AgentEvent event;
    event.agent = AgentKind::claude;
    event.sessionID = "cli-e2e";
    event.kind = AgentEvent::Kind::promptSubmitted;
    event.cwd = (dir / "project").string();
    event.pid = agent;
    event.timestamp = std::chrono::time_point_cast<std::chrono::seconds>(std::chrono::system_clock::now());
    ASSERT_EQ(client().send(DaemonRequest::hook({event}), 5), DaemonResponse::ok());

    ShellResult status = tavraSays({"status"});
    EXPECT_EQ(status.status, 0);
    EXPECT_NE(status.stdout.find("1. Claude · project · working"), std::string::npos) << status.stdout;

    EXPECT_EQ(tavraSays({"pause", "cli"}).stdout, "Paused claude:cli-e2e.\n");
    EXPECT_EQ(client().status().runs.at(0).run.status, RunStatus::paused);
    EXPECT_EQ(tavraSays({"resume", "1"}).status, 0);
    EXPECT_EQ(client().status().runs.at(0).run.status, RunStatus::working);
    EXPECT_EQ(tavraSays({"pause", "nothing-like-it"}).status, 1);

    // A command run through tavra holds the machine for exactly its lifetime.
    const pid_t runner = start({tavra.string(), "run", "--reason", "e2e", "--", "/bin/sleep", "1"});
    EXPECT_TRUE(waitFor([&] {
        for (const auto& reason : client().status().plan.reasons)
            if (reason.rfind("e2e (pid ", 0) == 0) return true;
        return false;
    }));
    int code = -1;
    ASSERT_EQ(::waitpid(runner, &code, 0), runner);
    EXPECT_TRUE(WIFEXITED(code) && WEXITSTATUS(code) == 0);
    for (const auto& reason : client().status().plan.reasons)
        EXPECT_EQ(reason.find("e2e"), std::string::npos);
}

}  // namespace
}  // namespace tavra
