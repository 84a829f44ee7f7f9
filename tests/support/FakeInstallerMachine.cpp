#include "support/FakeInstallerMachine.h"

#include <regex>

#include "kit/AtomicFile.h"
#include "platform/Shell.h"

namespace tavra::testing {

namespace fs = std::filesystem;

FakeInstallerMachine::FakeInstallerMachine(fs::path root, fs::path home)
    : root_(std::move(root)), home_(std::move(home)) {}

int FakeInstallerMachine::answer(const std::string& path, const std::vector<std::string>& args) {
    std::vector<std::string> line = {path};
    line.insert(line.end(), args.begin(), args.end());
    commands.push_back(line);
    std::string key = path + (args.empty() ? "" : " " + args[0]);
    if (auto found = statusOf.find(key); found != statusOf.end()) return found->second;
    if (runScripts && args.size() >= 2 && args[args.size() - 2] == "-c") {
        // As the user, inside the root: no chown, no service manager.
        std::string script = args.back();
        for (auto [from, to] :
             {std::pair{"-o root -g root ", ""}, {"-o root -g wheel ", ""}, {"/usr/bin/systemctl", ":"}})
            script = std::regex_replace(script, std::regex(from), to);
        return Shell::run("/bin/sh", {"-c", script}).status;
    }
    return 0;
}

InstallerSystem FakeInstallerMachine::linuxSystem() {
    InstallerSystem system;
    system.root = root_;
    system.uid = 1000;
    system.run = [this](const auto& path, const auto& args, double) {
        return ShellResult{answer(path, args), {}, {}};
    };
    system.runInteractive = [this](const auto& path, const auto& args) { return answer(path, args); };
    system.privilegeTool = "/usr/bin/pkexec";
    system.daemonServiceFile = home_ / ".config/systemd/user/com.tavra.daemon.service";
    system.logsDir = home_ / ".local/state/tavra";
    system.supportDir = home_ / ".local/share/tavra";
    system.helperBinary = "/usr/local/libexec/com.tavra.helper";
    system.helperServiceFile = "/etc/systemd/system/com.tavra.helper.service";
    system.helperSocket = "/run/com.tavra.helper.sock";
    system.helperStateDir = "/var/lib/tavra";
    return system;
}

InstallerSystem FakeInstallerMachine::macSystem() {
    InstallerSystem system = linuxSystem();
    system.privilegeTool.clear();
    system.daemonServiceFile = home_ / "Library/LaunchAgents/com.tavra.daemon.plist";
    system.logsDir = home_ / "Library/Logs/Tavra";
    system.supportDir = home_ / "Library/Application Support/Tavra";
    system.helperBinary = "/Library/PrivilegedHelperTools/com.tavra.helper";
    system.helperServiceFile = "/Library/LaunchDaemons/com.tavra.helper.plist";
    system.helperSocket = "/var/run/com.tavra.helper.sock";
    system.helperStateDir = "/Library/Application Support/Tavra";
    return system;
}

std::map<std::string, std::string> snapshotTree(const fs::path& dir) {
    std::map<std::string, std::string> tree;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
        std::string name = fs::relative(entry.path(), dir).string();
        tree[name] = entry.is_directory() ? "d" : readWholeFile(entry.path()).value_or("");
    }
    return tree;
}

}  // namespace tavra::testing
