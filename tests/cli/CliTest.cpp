#include "cli/Cli.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "core/ConfigCoding.h"
#include "kit/AtomicFile.h"
#include "kit/Config.h"
#include "kit/UnixSocket.h"
#include "support/FakeInstallerMachine.h"
#include "support/TempDir.h"

namespace tavra::cli {
namespace {

namespace fs = std::filesystem;

Run makeRun(const std::string& agent, const std::string& session, RunStatus status) {
    Run run;
    run.key = RunKey{AgentKind{agent}, session};
    run.status = status;
    return run;
}

// The command line against a daemon that answers from the test's status
// and records every request.
class CliTest : public ::testing::Test {
protected:
    testing::TempDir tmp;
    std::ostringstream out, err;
    DaemonStatus status;
    std::vector<DaemonRequest> sent;
    bool daemonUp = true;
    TavraConfig daemonConfig;
    std::vector<std::pair<std::string, std::string>> opened;
    Services services;
    const Date now = *TavraJSON::parseDate("2025-03-01T09:00:00Z");

    void SetUp() override {
        status.runs = {{makeRun("claude", "abc123", RunStatus::working), "claude --resume abc123"},
                       {makeRun("codex", "7f00", RunStatus::paused), std::nullopt},
                       {makeRun("claude", "def456", RunStatus::idle), "claude --resume def456"}};
        services.send = [this](const DaemonRequest& request, double) {
            if (!daemonUp) throw SocketError::system("connect", ENOENT);
            sent.push_back(request);
            if (std::holds_alternative<DaemonRequest::Status>(request.value))
                return DaemonResponse::status(status);
            if (std::holds_alternative<DaemonRequest::GetConfig>(request.value))
                return DaemonResponse::config(daemonConfig);
            return DaemonResponse::ok();
        };
        services.openTerminal = [this](const std::string& command, const std::string& name) {
            opened.emplace_back(command, name);
        };
        services.now = [this] { return now; };
        services.home = tmp.path() / "home";
        services.configFile = tmp.path() / "config.json";
        services.logFile = tmp.path() / "tavrad.log";
        services.daemonStartCommand = "systemctl --user start com.tavra.daemon";
        services.out = &out;
        services.err = &err;
    }

    int run(const std::vector<std::string>& arguments) {
        Parsed parsed = parseArguments(arguments);
        if (!parsed.request) return parsed.exitStatus;
        return execute(*parsed.request, services);
    }

    // The user commands the daemon received, in order.
    std::vector<UserCommand> commands() const {
        std::vector<UserCommand> found;
        for (const auto& request : sent)
            if (auto* command = std::get_if<DaemonRequest::Command>(&request.value))
                found.push_back(command->command);
        return found;
    }
};

TEST_F(CliTest, ResumingARunThatIsNotPausedOpensItsSessionInATerminal) {
    EXPECT_EQ(run({"resume", "3"}), 0);
    EXPECT_EQ(run({"resume", "2", "--terminal"}), 1);  // no command to open it with
    EXPECT_EQ(run({"resume", "1"}), 1);                // working: nothing to resume
    EXPECT_EQ(run({"forget", "0"}), 1);                // numbers start at 1: 0 is no run
    EXPECT_EQ(
        opened,
        (std::vector<std::pair<std::string, std::string>>{{"claude --resume def456", "claude:def456"}}));
    EXPECT_TRUE(commands().empty());
}

TEST_F(CliTest, ConfigChangesAreCheckedThenSavedThroughTheDaemon) {
    // Out of range, not a value of its kind, no such key.
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"policy.batteryFloorPercent", "95"}, {"remote.notifyWhen", "sometimes"}, {"policy.nope", "1"}};
    for (const auto& [key, value] : refused) EXPECT_EQ(run({"config", "set", key, value}), 2) << key;
    EXPECT_EQ(sent.size(), refused.size());  // a getConfig each, never a setConfig

    sent.clear();
    EXPECT_EQ(run({"config", "set", "remote.telegram.chatID", "-100123"}), 0);
    EXPECT_EQ(run({"config", "set", "policy.lidClosedOnBattery", "on"}), 0);
    ASSERT_EQ(sent.size(), 4u);
    TavraConfig expected;
    expected.remote.telegram.chatID = -100123;
    EXPECT_EQ(sent[1], DaemonRequest::setConfig(expected));
    expected = TavraConfig{};
    expected.policy.lidClosedOnBattery = true;
    EXPECT_EQ(sent[3], DaemonRequest::setConfig(expected));

    // With no daemon, the file itself.
    daemonUp = false;
    out.str("");
    EXPECT_EQ(run({"config", "set", "remote.approvalTimeout", "900"}), 0);
    EXPECT_EQ(ConfigStore::load(services.configFile).remote.approvalTimeout, 900);
    EXPECT_EQ(run({"config", "get", "remote.approvalTimeout"}), 0);
    EXPECT_NE(out.str().find("\n900\n"), std::string::npos);
}

TEST_F(CliTest, RunHoldsUnderALeaseAndPassesTheExitStatusThrough) {
    EXPECT_EQ(run({"run", "--reason", "tests", "--", "/bin/sh", "-c", "exit 3"}), 3);
    auto held = commands();
    ASSERT_EQ(held.size(), 2u);
    auto* hold = std::get_if<UserCommand::Hold>(&held[0].value);
    ASSERT_NE(hold, nullptr);
    EXPECT_EQ(hold->id, "tests (pid " + std::to_string(::getpid()) + ")");
    EXPECT_EQ(hold->until, addSeconds(now, 120));
    EXPECT_EQ(held[1], UserCommand::hold(hold->id, std::nullopt));

    // A signal sent to tavra reaches the command, whose end is ours.
    EXPECT_EQ(
        run({"run", "/bin/sh", "-c", "trap 'exit 7' USR1; kill -USR1 $PPID; while :; do sleep 0.05; done"}),
        7);
    EXPECT_EQ(run({"run", "/bin/sh", "-c", "kill -TERM $$"}), 128 + SIGTERM);
    EXPECT_EQ(run({"run", "/no/such/tool"}), 127);
    EXPECT_EQ(commands().size(), 8u);  // every hold released, the failed start's too
}

TEST_F(CliTest, SetupThenUninstallLeavesHomeAndRootAsTheyWere) {
    const fs::path home = services.home, root = tmp.path() / "root";
    // Started from a build tree, where each program has its own folder.
    const fs::path build = tmp.path() / "build/src";
    for (const char* tool : {"cli/tavra", "daemon/tavrad", "hook/tavra-hook", "helper/tavra-helper"}) {
        fs::create_directories((build / tool).parent_path());
        writeFileAtomically(build / tool, "#!/bin/sh\n", 0755);
    }
    fs::create_directories(home / ".claude");
    const std::string settings = "{\n  \"model\": \"opus\"\n}\n";
    writeFileAtomically(home / ".claude/settings.json", settings, 0640);
    fs::create_directories(home / ".codex");
    fs::create_directories(home / ".grok");
    for (const char* dir : {"etc/systemd/system", "lib/systemd/system", "usr/local", "run", "var/lib"})
        fs::create_directories(root / dir);
    writeFileAtomically(root / "lib/systemd/system/apt-daily-upgrade.service", "", 0644);

    testing::FakeInstallerMachine machine(root, home);
    machine.runScripts = true;
    services.installerSystem = [&] { return machine.linuxSystem(); };
    services.executableDir = build / "cli";
    services.installDir = home / ".local/bin";
    services.systemChecks = [] { return std::vector<SystemCheck>{}; };
    services.helperAnswers = [] { return true; };
    daemonUp = false;
    int naps = 0;
    services.sleep = [&](double) { daemonUp = ++naps > 3; };  // the daemon takes a moment to start

    const auto homeBefore = testing::snapshotTree(home);
    const auto rootBefore = testing::snapshotTree(root);
    EXPECT_EQ(run({"setup"}), 0) << err.str();
    fs::create_directories(root / "run/tavra");  // a helper that died holding updates off
    writeFileAtomically(root / "run/tavra/update-deferral.lease", "{}", 0644);
    EXPECT_EQ(run({"setup"}), 0) << err.str();  // over the earlier install
    EXPECT_NE(out.str().find("✓ Claude Code hooks already in"), std::string::npos);
    EXPECT_EQ(readWholeFile(home / ".claude/settings.json.tavra-backup"), settings);
    EXPECT_EQ(fs::status(home / ".claude/settings.json").permissions(), fs::perms(0640));
    EXPECT_NE(out.str().find("Codex runs new hooks only once you trust them"), std::string::npos);
    for (const fs::path& installed : {home / ".grok/hooks/tavra.json", home / ".local/bin/tavra-hook",
                                      root / "usr/local/libexec/com.tavra.helper",
                                      root / "etc/systemd/system/apt-daily-upgrade.service.d"})
        EXPECT_TRUE(fs::exists(installed)) << installed;
    EXPECT_FALSE(fs::exists(root / "etc/systemd/system/unattended-upgrades.service.d"));

    out.str("");
    EXPECT_EQ(run({"doctor"}), 0);
    EXPECT_EQ(
        out.str(),
        "✓ daemon running\n✓ helper installed\n✓ helper answering\n✓ Claude Code hooks present\n"
        "✓ Codex hooks present\n✓ Grok hooks present\n- no phone channel configured (see README: Telegram "
        "or ntfy)\n");

    EXPECT_EQ(run({"uninstall"}), 0) << err.str();
    EXPECT_EQ(testing::snapshotTree(home), homeBefore);
    EXPECT_EQ(testing::snapshotTree(root), rootBefore);
    EXPECT_EQ(run({"uninstall"}), 0) << err.str();  // with nothing installed
}

}  // namespace
}  // namespace tavra::cli
