#include <gtest/gtest.h>

#include <fstream>
#include <tuple>

#include "platform/Desktop.h"
#include "support/ErrorText.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;

TEST(DesktopRulesTest, NotificationScriptEscapesBackslashesAndQuotes) {
    Alert alert;
    alert.title = "Run \"a\"";
    alert.body = R"(done \o/)";
    alert.level = Alert::Level::warning;
    EXPECT_EQ(
        DesktopRules::notificationScript(alert),
        R"(display notification "done \\o/" with title "Tavra" subtitle "Run \"a\"" sound name "Sosumi")");
}

TEST(DesktopRulesTest, ScriptNamesCannotEscapeTheirDirectory) {
    const std::pair<std::string, std::string> cases[] = {
        {"claude:abc/def", "claude_abc_def.command"},
        {"", ".command"},
        {"../../etc/passwd", ".._.._etc_passwd.command"},
        {"ok-1.2_x", "ok-1.2_x.command"},
        {"a b\n\xC3\xA9", "a_b___.command"},  // each byte of a UTF-8 sequence
    };
    for (const auto& [name, file] : cases) EXPECT_EQ(DesktopRules::scriptFileName(name, ".command"), file);
}

TEST(DesktopRulesTest, TerminalIsTheUsersChoiceThenTheFirstKnownOneOnPath) {
    testing::TempDir dir;
    auto program = [&](const std::string& at, fs::perms mode = fs::perms(0755)) {
        fs::create_directories((dir / at).parent_path());
        std::ofstream(dir / at) << "#!/bin/sh\n";
        fs::permissions(dir / at, mode);
        return (dir / at).string();
    };
    auto xterm = program("a/xterm");
    auto gnome = program("b/gnome-terminal");
    auto mine = program("a/mine");
    program("a/konsole", fs::perms(0644));                      // not executable
    fs::create_directories(dir / "b" / "x-terminal-emulator");  // a directory
    const std::string path = (dir / "a").string() + ":" + (dir / "b").string();
    const std::string s = "/r/x.sh";
    using Case = std::tuple<std::optional<std::string>, std::string, std::vector<std::string>>;
    const Case cases[] = {
        {std::nullopt, path, {gnome, "--", s}},
        {"mine", path, {mine, "-e", s}},
        {mine, "", {mine, "-e", s}},  // a path needs no search
        {"", (dir / "a").string(), {xterm, "-e", s}},
    };
    for (const auto& [variable, searchPath, expected] : cases)
        EXPECT_EQ(DesktopRules::terminalCommand(s, variable, searchPath), expected)
            << variable.value_or("unset");
    EXPECT_EQ(
        testing::errorText<TerminalError>(
            [&] { DesktopRules::terminalCommand(s, "mine", (dir / "b" / "x-terminal-emulator").string()); }),
        "no terminal found: set TERMINAL or install x-terminal-emulator, gnome-terminal, konsole or xterm");
}

}  // namespace
}  // namespace tavra
