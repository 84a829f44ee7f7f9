#include "platform/Desktop.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <thread>

#include "kit/AtomicFile.h"
#include "kit/Paths.h"
#include "support/ScopedEnv.h"
#include "support/TempDir.h"
#include "support/linux/FakeLogind.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;
using testing::ScopedEnv;

TEST(LocalNotifierTest, ShowsAnAlertOnTheSessionBusWithUrgencyByLevel) {
    testing::FakeLogind service({.logind = false, .notifications = true});
    ScopedEnv session("DBUS_SESSION_BUS_ADDRESS", service.address());
    Alert alert;
    alert.level = Alert::Level::warning;
    alert.title = "Paused \"x\"";
    alert.body = "battery at 9%";
    LocalNotifier::show(alert);
    EXPECT_EQ(service.calls(),
              (std::vector<std::string>{"Notify Tavra|0||Paused \"x\"|battery at 9%|urgency=1|-1"}));
}

TEST(TerminalLauncherTest, WritesTheScriptAndOpensItWithoutWaitingForTheWindow) {
    testing::TempDir home;
    ScopedEnv homeVariable("HOME", home.path().string());
    ScopedEnv data("XDG_DATA_HOME", std::nullopt);
    // A terminal that records its process ID and how it was asked, and then
    // stays open past open()'s time-out, as a window would.
    auto record = (home / "asked").string();
    auto terminal = home / "term";
    std::ofstream(terminal) << "#!/bin/sh\necho $$ \"$*\" >" << record << ".tmp && mv " << record << ".tmp "
                            << record << "\nexec sleep 60\n";
    fs::permissions(terminal, fs::perms(0755));
    ScopedEnv terminalVariable("TERMINAL", terminal.string());

    TerminalLauncher::open("cd '/p' && claude --resume s1", "claude:s1");
    auto script = TavraPaths::resumeScripts() / "claude_s1.sh";
    EXPECT_EQ(readWholeFile(script),
              "#!/bin/sh\ncd '/p' && claude --resume s1\nexec \"${SHELL:-/bin/sh}\" -l\n");
    EXPECT_EQ(fs::status(script).permissions(), fs::perms(0700));
    for (int i = 0; i < 1000 && !fs::exists(record); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    auto asked = readWholeFile(record).value_or("0 ");
    pid_t window = std::stoi(asked);
    EXPECT_EQ(asked.substr(asked.find(' ') + 1), "-e " + script.string() + "\n");
    if (window > 0) ::kill(window, SIGTERM);
}

}  // namespace
}  // namespace tavra
