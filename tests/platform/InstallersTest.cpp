#include "platform/Installers.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "kit/AtomicFile.h"
#include "support/FakeInstallerMachine.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;
using testing::FakeInstallerMachine;
using Commands = std::vector<std::vector<std::string>>;

std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

std::string read(const fs::path& file) {
    return readWholeFile(file).value_or("<missing>");
}

// A launchd property list whose entries from the Label's value on are `entries`.
std::string plist(const std::string& entries) {
    return R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>KeepAlive</key>
	<true/>
	<key>Label</key>
)" + entries +
           "</dict>\n</plist>\n";
}

void writeFile(const fs::path& file, const std::string& text) {
    fs::create_directories(file.parent_path());
    std::ofstream(file) << text;
}

TEST(InstallerQuoting, ShellAndAppleScriptForms) {
    struct Case {
        std::string text, shell, appleScript;
    };
    const std::vector<Case> cases = {
        {"/plain/path", "'/plain/path'", "/plain/path"},
        {"/with blank/x", "'/with blank/x'", "/with blank/x"},
        {"/Jo's/x", R"('/Jo'\''s/x')", "/Jo's/x"},
        {R"(/back\slash)", R"('/back\slash')", R"(/back\\slash)"},
        {R"(/say "hi")", R"('/say "hi"')", R"(/say \"hi\")"},
        // The backslash added before a quote is not doubled again.
        {R"(\")", R"('\"')", R"(\\\")"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(InstallerText::shellQuote(c.text), c.shell) << c.text;
        EXPECT_EQ(InstallerText::appleScriptEscape(c.text), c.appleScript) << c.text;
    }
    // What sh makes of a quoted word is the word again.
    for (const auto& c : cases)
        EXPECT_EQ(Shell::run("/bin/sh", {"-c", "printf %s " + c.shell}).stdout, c.text);
}

TEST(InstallerQuoting, SystemdWords) {
    EXPECT_EQ(InstallerText::systemdWord("/usr/bin/tavrad"), "/usr/bin/tavrad");
    EXPECT_EQ(InstallerText::systemdWord("/home/a b/tavrad"), "\"/home/a b/tavrad\"");
    EXPECT_EQ(InstallerText::systemdWord(R"(/x"y\z)"), R"("/x\"y\\z")");
    EXPECT_EQ(InstallerText::systemdWord("/50%/$HOME"), "/50%%/$$HOME");
}

class LaunchdInstallerTest : public ::testing::Test {
protected:
    testing::TempDir tmp;
    // A home with every character the quoting has to survive.
    fs::path home = tmp.path() / R"(Jo's "Mac" \ home)";
    FakeInstallerMachine machine{tmp.path() / "root", home};
    InstallerSystem system = machine.macSystem();
    fs::path helper = tmp.path() / "tavra-helper";

    void SetUp() override { writeFile(helper, "#!/bin/sh\n"); }
};

TEST_F(LaunchdInstallerTest, DaemonPropertyListAndCommandOrder) {
    machine.statusOf["/bin/launchctl bootout"] = 3;  // nothing to stop: ignored
    LaunchdInstall::installDaemon("/Users/jo/.tavra/bin/tavrad", system);

    const std::string log = (home / "Library/Logs/Tavra/tavrad.log").string();
    EXPECT_EQ(read(system.daemonServiceFile), plist(R"(	<string>com.tavra.daemon</string>
	<key>ProcessType</key>
	<string>Interactive</string>
	<key>ProgramArguments</key>
	<array>
		<string>/Users/jo/.tavra/bin/tavrad</string>
	</array>
	<key>RunAtLoad</key>
	<true/>
	<key>StandardErrorPath</key>
	<string>)" + log + R"(</string>
	<key>StandardOutPath</key>
	<string>)" + log + R"(</string>
)"));
    EXPECT_EQ(machine.commands,
              (Commands{{"/bin/launchctl", "bootout", "gui/1000/com.tavra.daemon"},
                        {"/bin/launchctl", "bootstrap", "gui/1000", system.daemonServiceFile.string()}}));

    // Over an earlier install: stopped first, written, started again; a
    // failed start is the caller's to see.
    machine.commands.clear();
    machine.statusOf["/bin/launchctl bootstrap"] = 5;
    EXPECT_THROW(LaunchdInstall::installDaemon("/opt/tavrad", system), ShellError);
    EXPECT_NE(read(system.daemonServiceFile).find("<string>/opt/tavrad</string>"), std::string::npos);
    EXPECT_EQ(machine.commands.size(), 2u);

    machine.commands.clear();
    LaunchdInstall::uninstallDaemon(system);
    LaunchdInstall::uninstallDaemon(system);  // with nothing installed
    EXPECT_FALSE(fs::exists(system.daemonServiceFile));
    EXPECT_EQ(machine.commands.size(), 2u);
}

TEST_F(LaunchdInstallerTest, HelperScriptThroughOneAdministratorPrompt) {
    LaunchdInstall::installHelper(helper, system);

    // The staging folder's path: a blank, a single quote, double quotes and
    // a backslash, each quoted for sh and then escaped for AppleScript.
    const std::string staging =
        replaceAll(tmp.path().string(), "\\", "\\\\") +
        R"(/Jo'\\''s \"Mac\" \\ home/Library/Application Support/Tavra/helper-staging)";
    const auto script = replaceAll(R"(do shell script "set -e
/bin/launchctl bootout system/com.tavra.helper 2>/dev/null || true
/bin/mkdir -p /Library/PrivilegedHelperTools
/usr/bin/install -o root -g wheel -m 755 '{S}/com.tavra.helper' '/Library/PrivilegedHelperTools/com.tavra.helper'
/usr/bin/install -o root -g wheel -m 644 '{S}/com.tavra.helper.plist' '/Library/LaunchDaemons/com.tavra.helper.plist'
/bin/launchctl bootstrap system '/Library/LaunchDaemons/com.tavra.helper.plist'" with prompt "Tavra needs to install a small helper so agents can keep running with the lid closed." with administrator privileges)",
                                   "{S}", staging);
    EXPECT_EQ(machine.commands, (Commands{{"/usr/bin/osascript", "-e", script}}));
    EXPECT_FALSE(fs::exists(system.supportDir / "helper-staging"));
}

TEST_F(LaunchdInstallerTest, CancelledPromptLeavesStagingForTheNextAttempt) {
    machine.statusOf["/usr/bin/osascript -e"] = 1;
    EXPECT_THROW(LaunchdInstall::installHelper(helper, system), ShellError);
    const fs::path staging = system.supportDir / "helper-staging";
    struct stat info {};
    ASSERT_EQ(::stat(staging.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    EXPECT_TRUE(fs::exists(staging / "com.tavra.helper.plist"));

    machine.statusOf.clear();
    LaunchdInstall::installHelper(helper, system);
    EXPECT_FALSE(fs::exists(staging));
}

TEST_F(LaunchdInstallerTest, HelperUninstallAlwaysRestoresLidSleep) {
    LaunchdInstall::uninstallHelper(system);
    ASSERT_EQ(machine.commands.size(), 1u);
    EXPECT_NE(machine.commands[0][2].find("\n/usr/bin/pmset -a disablesleep 0\n"), std::string::npos);
}

class SystemdInstallerTest : public ::testing::Test {
protected:
    testing::TempDir tmp;
    FakeInstallerMachine machine{tmp.path() / "root", tmp.path() / "home"};
    InstallerSystem system = machine.linuxSystem();
    fs::path helper = tmp.path() / "tavra-helper";

    void SetUp() override {
        writeFile(helper, "#!/bin/sh\n");
        // Debian's unit folders with two of the three update services.
        writeFile(tmp.path() / "root/lib/systemd/system/apt-daily-upgrade.service", "[Unit]\n");
        writeFile(tmp.path() / "root/usr/lib/systemd/system/packagekit-offline-update.service", "[Unit]\n");
        fs::create_directories(tmp.path() / "root/etc/systemd/system");
        fs::create_directories(tmp.path() / "root/usr/local");
        fs::create_directories(tmp.path() / "root/run");
        fs::create_directories(tmp.path() / "root/var/lib");
    }
};

TEST_F(SystemdInstallerTest, DaemonUserUnitAndCommandOrder) {
    SystemdInstall::installDaemon("/home/jo/.local/bin/tavrad", system);
    const std::string log = (tmp.path() / "home/.local/state/tavra/tavrad.log").string();
    EXPECT_EQ(read(system.daemonServiceFile), replaceAll(R"([Unit]
Description=Tavra daemon: keeps the machine awake while coding agents work

[Service]
ExecStart=/home/jo/.local/bin/tavrad
ExecStopPost=/home/jo/.local/bin/tavrad --recover
Restart=always
RestartSec=2
StandardOutput=append:{LOG}
StandardError=append:{LOG}

[Install]
WantedBy=default.target
)",
                                                         "{LOG}", log));
    EXPECT_EQ(machine.commands,
              (Commands{{"/usr/bin/systemctl", "--user", "stop", "com.tavra.daemon.service"},
                        {"/usr/bin/systemctl", "--user", "daemon-reload"},
                        {"/usr/bin/systemctl", "--user", "enable", "--now", "com.tavra.daemon.service"}}));

    machine.commands.clear();
    SystemdInstall::uninstallDaemon(system);
    SystemdInstall::uninstallDaemon(system);  // with nothing installed
    EXPECT_FALSE(fs::exists(system.daemonServiceFile));
    EXPECT_EQ(machine.commands.front(), (std::vector<std::string>{"/usr/bin/systemctl", "--user", "disable",
                                                                  "--now", "com.tavra.daemon.service"}));
}

TEST_F(SystemdInstallerTest, HelperUnitDropInsAndOnePrivilegedScript) {
    SystemdInstall::installHelper(helper, system);

    const std::string staging = (tmp.path() / "home/.local/share/tavra/helper-staging").string();
    const std::string expected = R"(set -e
/usr/bin/systemctl stop com.tavra.helper.service 2>/dev/null || true
/usr/bin/install -d -m 755 '{R}/usr/local/libexec' '{R}/etc/systemd/system'
/usr/bin/install -o root -g root -m 755 '{S}/com.tavra.helper' '{R}/usr/local/libexec/com.tavra.helper'
/usr/bin/install -o root -g root -m 644 '{S}/com.tavra.helper.service' '{R}/etc/systemd/system/com.tavra.helper.service'
/usr/bin/install -d -m 755 '{R}/etc/systemd/system/apt-daily-upgrade.service.d'
/usr/bin/install -o root -g root -m 644 '{S}/com.tavra.update-deferral.conf' '{R}/etc/systemd/system/apt-daily-upgrade.service.d/com.tavra.update-deferral.conf'
/usr/bin/install -d -m 755 '{R}/etc/systemd/system/packagekit-offline-update.service.d'
/usr/bin/install -o root -g root -m 644 '{S}/com.tavra.update-deferral.conf' '{R}/etc/systemd/system/packagekit-offline-update.service.d/com.tavra.update-deferral.conf'
/usr/bin/systemctl daemon-reload
/usr/bin/systemctl enable --now com.tavra.helper.service)";
    EXPECT_EQ(machine.commands,
              (Commands{{"/usr/bin/pkexec", "/bin/sh", "-c",
                         replaceAll(replaceAll(expected, "{R}", (tmp.path() / "root").string()), "{S}",
                                    staging)}}));
    EXPECT_FALSE(fs::exists(staging));
}

TEST_F(SystemdInstallerTest, UpdateDeferralDropInWaitsForTheLease) {
    EXPECT_EQ(InstallerText::updateDeferralDropIn(),
              "# Added by Tavra: no automatic upgrade while Tavra's helper defers them for running agents.\n"
              "[Unit]\n"
              "ConditionPathExists=!/run/tavra/update-deferral.lease\n");
}

}  // namespace
}  // namespace tavra
