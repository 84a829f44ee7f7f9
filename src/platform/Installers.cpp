// The installers' decisions, shared by both systems: file contents, quoting,
// and the order of the commands. The per-OS files only pick a flow.

#include "platform/Installers.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "core/Text.h"
#include "kit/AtomicFile.h"
#include "kit/Paths.h"

extern char** environ;

namespace tavra {

namespace {

namespace fs = std::filesystem;

constexpr double kToolTimeout = 30.0;
constexpr double kPromptTimeout = 600.0;

// ---- Small file-system steps, each failure a FileError --------------------

[[noreturn]] void fail(const std::string& what, const fs::path& path, const std::error_code& error) {
    throw FileError(what, path, error.message());
}

void createDirectories(const fs::path& dir) {
    std::error_code error;
    fs::create_directories(dir, error);
    if (error) fail("create", dir, error);
}

void removeQuietly(const fs::path& path) noexcept {
    std::error_code ignored;
    fs::remove_all(path, ignored);
}

// Writes a staged file in one go; nobody reads it before the script runs.
void writeStaged(const fs::path& path, std::string_view bytes) {
    writeFileAtomically(path, bytes, 0600);
}

// A fresh staging directory, owner only, for the files the privileged script
// copies into place. Whatever an earlier, failed attempt left goes first.
fs::path freshStaging(const InstallerSystem& system) {
    fs::path staging = system.supportDir / "helper-staging";
    removeQuietly(staging);
    createDirectories(staging);
    std::error_code error;
    fs::permissions(staging, fs::perms::owner_all, fs::perm_options::replace, error);
    if (error) fail("protect", staging, error);
    return staging;
}

void copyInto(const fs::path& from, const fs::path& to) {
    std::error_code error;
    fs::copy_file(from, to, fs::copy_options::overwrite_existing, error);
    if (error) fail("copy " + from.string() + " to", to, error);
}

// ---- Running tools ---------------------------------------------------------

void runIgnoringFailure(const InstallerSystem& system, std::string_view path,
                        const std::vector<std::string>& args) noexcept {
    try {
        (void)system.run(std::string(path), args, kToolTimeout);
    } catch (...) {
        // There may be nothing to stop; whatever went wrong changes nothing.
    }
}

ShellResult runChecked(const InstallerSystem& system, std::string_view path,
                       const std::vector<std::string>& args, double timeout = kToolTimeout) {
    ShellResult result = system.run(std::string(path), args, timeout);
    if (!result.ok())
        throw ShellError::failed(Shell::commandLine(std::string(path), args), std::move(result));
    return result;
}

// ---- Text pieces -------------------------------------------------------------

// One entry of a property list dictionary; launchd's files only need these
// three value kinds.
struct PlistEntry {
    std::string key;
    enum class Kind { string, boolean, strings } kind;
    std::string text;
    std::vector<std::string> list;
    bool flag = false;
};

// The dictionary as the system's own writer puts it: keys in sorted order,
// one tab per level.
std::string propertyList(std::vector<PlistEntry> entries) {
    std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.key < b.key; });
    std::string out =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\">\n<dict>\n";
    for (const auto& entry : entries) {
        out += "\t<key>" + Text::escapeMarkup(entry.key) + "</key>\n";
        switch (entry.kind) {
            case PlistEntry::Kind::string:
                out += "\t<string>" + Text::escapeMarkup(entry.text) + "</string>\n";
                break;
            case PlistEntry::Kind::boolean:
                out += entry.flag ? "\t<true/>\n" : "\t<false/>\n";
                break;
            case PlistEntry::Kind::strings:
                out += "\t<array>\n";
                for (const auto& item : entry.list)
                    out += "\t\t<string>" + Text::escapeMarkup(item) + "</string>\n";
                out += "\t</array>\n";
                break;
        }
    }
    out += "</dict>\n</plist>\n";
    return out;
}

PlistEntry stringEntry(std::string key, std::string value) {
    return {std::move(key), PlistEntry::Kind::string, std::move(value), {}, false};
}
PlistEntry boolEntry(std::string key, bool value) {
    return {std::move(key), PlistEntry::Kind::boolean, {}, {}, value};
}
PlistEntry listEntry(std::string key, std::vector<std::string> values) {
    return {std::move(key), PlistEntry::Kind::strings, {}, std::move(values), false};
}

std::string quoted(const fs::path& path) {
    return InstallerText::shellQuote(path.string());
}

constexpr std::string_view kHelperLog = "/var/log/tavra-helper.log";

std::string daemonUnitName() {
    return std::string(TavraPaths::daemonLabel) + ".service";
}
std::string helperUnitName() {
    return std::string(TavraPaths::helperLabel) + ".service";
}

}  // namespace

// The administrator prompt of sudo needs the terminal, so the tool inherits
// standard input and output instead of the pipes Shell gives.
int runInteractively(const std::string& path, const std::vector<std::string>& args) {
    std::vector<char*> argv;
    std::string program = path;
    argv.push_back(program.data());
    std::vector<std::string> copies = args;
    for (auto& arg : copies) argv.push_back(arg.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    int error = ::posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv.data(), environ);
    if (error != 0) throw SpawnError(path, error);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return 1;
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return 128 + WTERMSIG(status);
}

fs::path InstallerSystem::underRoot(const fs::path& absolute) const {
    if (root.empty() || root == "/") return absolute;
    return root / absolute.relative_path();
}

// ---- InstallerText ---------------------------------------------------------------

namespace InstallerText {

std::string shellQuote(std::string_view word) {
    std::string out = "'";
    for (char c : word) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    out += '\'';
    return out;
}

// Backslashes first, so that the backslash added before a double quote is
// not doubled again.
std::string appleScriptEscape(std::string_view text) {
    std::string out;
    for (char c : text) {
        if (c == '\\')
            out += "\\\\";
        else
            out += c;
    }
    std::string result;
    for (char c : out) {
        if (c == '"') result += '\\';
        result += c;
    }
    return result;
}

std::string administratorScript(std::string_view script, std::string_view prompt) {
    return "do shell script \"" + appleScriptEscape(script) + "\" with prompt \"" + std::string(prompt) +
           "\" with administrator privileges";
}

std::string daemonPropertyList(const fs::path& daemonBinary, const fs::path& logFile) {
    return propertyList({
        stringEntry("Label", std::string(TavraPaths::daemonLabel)),
        listEntry("ProgramArguments", {daemonBinary.string()}),
        boolEntry("RunAtLoad", true),
        boolEntry("KeepAlive", true),
        stringEntry("ProcessType", "Interactive"),
        stringEntry("StandardOutPath", logFile.string()),
        stringEntry("StandardErrorPath", logFile.string()),
    });
}

std::string helperPropertyList(const fs::path& helperBinary, std::uint32_t uid) {
    return propertyList({
        stringEntry("Label", std::string(TavraPaths::helperLabel)),
        listEntry("ProgramArguments", {helperBinary.string(), "--allow-uid", std::to_string(uid)}),
        boolEntry("RunAtLoad", true),
        boolEntry("KeepAlive", true),
        stringEntry("StandardOutPath", std::string(kHelperLog)),
        stringEntry("StandardErrorPath", std::string(kHelperLog)),
    });
}

std::string launchdHelperInstallScript(const fs::path& stagedBinary, const fs::path& stagedPlist,
                                       const fs::path& helperBinary, const fs::path& helperServiceFile) {
    return Text::join(
        {
            "set -e",
            "/bin/launchctl bootout system/" + std::string(TavraPaths::helperLabel) + " 2>/dev/null || true",
            "/bin/mkdir -p /Library/PrivilegedHelperTools",
            "/usr/bin/install -o root -g wheel -m 755 " + quoted(stagedBinary) + " " + quoted(helperBinary),
            "/usr/bin/install -o root -g wheel -m 644 " + quoted(stagedPlist) + " " +
                quoted(helperServiceFile),
            "/bin/launchctl bootstrap system " + quoted(helperServiceFile),
        },
        "\n");
}

// No "set -e": each step runs whatever the one before it did.
std::string launchdHelperUninstallScript(const fs::path& helperBinary, const fs::path& helperServiceFile,
                                         std::string_view helperSocket) {
    return Text::join(
        {
            "/bin/launchctl bootout system/" + std::string(TavraPaths::helperLabel) + " 2>/dev/null || true",
            "/usr/bin/pmset -a disablesleep 0",
            "/bin/rm -f " + quoted(helperBinary) + " " + quoted(helperServiceFile) + " " +
                shellQuote(helperSocket),
        },
        "\n");
}

std::string systemdWord(std::string_view word) {
    bool plain = !word.empty();
    std::string escaped;
    for (char c : word) {
        if (c == '%' || c == '$') {
            escaped += c;  // doubled: systemd would expand a specifier or a variable
        } else if (c == '\\' || c == '"') {
            escaped += '\\';
            plain = false;
        } else if (c == ' ' || c == '\t' || c == '\'' || c == ';' || c == '\n') {
            plain = false;
        }
        escaped += c;
    }
    return plain ? escaped : "\"" + escaped + "\"";
}

std::string daemonUnit(const fs::path& daemonBinary, const fs::path& logFile) {
    // A path in StandardOutput= is taken whole, blanks included; only its
    // specifiers need escaping.
    std::string log;
    for (char c : logFile.string()) {
        if (c == '%') log += '%';
        log += c;
    }
    const std::string binary = systemdWord(daemonBinary.string());
    return "[Unit]\n"
           "Description=Tavra daemon: keeps the machine awake while coding agents work\n"
           "\n"
           "[Service]\n"
           "ExecStart=" +
           binary +
           "\n"
           // After any stop, a crash included: thaw what the daemon froze and
           // let go of the helper.
           "ExecStopPost=" +
           binary +
           " --recover\n"
           "Restart=always\n"
           "RestartSec=2\n"
           "StandardOutput=append:" +
           log +
           "\n"
           "StandardError=append:" +
           log +
           "\n"
           "\n"
           "[Install]\n"
           "WantedBy=default.target\n";
}

std::string helperUnit(const fs::path& helperBinary, std::uint32_t uid) {
    return "[Unit]\n"
           "Description=Tavra helper: lid sleep and update deferral for Tavra's daemon\n"
           "After=systemd-logind.service\n"
           "\n"
           "[Service]\n"
           "ExecStart=" +
           systemdWord(helperBinary.string()) + " --allow-uid " + std::to_string(uid) +
           "\n"
           "Restart=always\n"
           "RestartSec=2\n"
           "\n"
           "[Install]\n"
           "WantedBy=multi-user.target\n";
}

const std::vector<std::string_view> kUpdateServices = {
    "apt-daily-upgrade.service",
    "unattended-upgrades.service",
    "packagekit-offline-update.service",
};

std::string updateDeferralDropIn() {
    return "# Added by Tavra: no automatic upgrade while Tavra's helper defers them for running agents.\n"
           "[Unit]\n"
           "ConditionPathExists=!" +
           std::string(kUpdateDeferralLease) + "\n";
}

std::string systemdHelperInstallScript(const SystemdHelperFiles& files) {
    const std::string systemctl(SystemdInstall::kSystemctl);
    std::vector<std::string> lines = {
        "set -e",
        systemctl + " stop " + helperUnitName() + " 2>/dev/null || true",
        "/usr/bin/install -d -m 755 " + quoted(files.helperBinary.parent_path()) + " " +
            quoted(files.helperUnit.parent_path()),
        "/usr/bin/install -o root -g root -m 755 " + quoted(files.stagedBinary) + " " +
            quoted(files.helperBinary),
        "/usr/bin/install -o root -g root -m 644 " + quoted(files.stagedUnit) + " " +
            quoted(files.helperUnit),
    };
    for (const auto& dir : files.dropInDirs) {
        lines.push_back("/usr/bin/install -d -m 755 " + quoted(dir));
        lines.push_back("/usr/bin/install -o root -g root -m 644 " + quoted(files.stagedDropIn) + " " +
                        quoted(dir / kDropInName));
    }
    lines.push_back(systemctl + " daemon-reload");
    lines.push_back(systemctl + " enable --now " + helperUnitName());
    return Text::join(lines, "\n");
}

// No "set -e": each step runs whatever the one before it did. Stopping the
// helper gives back the lid and updates; the lease goes anyway, in case the
// helper died without its goodbye.
std::string systemdHelperUninstallScript(const SystemdHelperFiles& files) {
    const std::string systemctl(SystemdInstall::kSystemctl);
    std::string removeFiles = "/bin/rm -f " + quoted(files.helperBinary) + " " + quoted(files.helperUnit) +
                              " " + shellQuote(files.helperSocket);
    std::string removeDirs = "/bin/rmdir";
    for (const auto& dir : files.dropInDirs) {
        removeFiles += " " + quoted(dir / kDropInName);
        removeDirs += " " + quoted(dir);
    }
    removeDirs += " " + quoted(files.leaseFile.parent_path()) + " " +
                  quoted(files.helperBinary.parent_path()) + " 2>/dev/null || true";
    return Text::join(
        {
            systemctl + " disable --now " + helperUnitName() + " 2>/dev/null || true",
            "/bin/rm -f " + quoted(files.leaseFile),
            removeFiles,
            removeDirs,
            "/bin/rm -rf " + quoted(files.stateDir),
            systemctl + " daemon-reload",
        },
        "\n");
}

}  // namespace InstallerText

// ---- launchd -------------------------------------------------------------------

namespace LaunchdInstall {

namespace {

std::string guiDomain(const InstallerSystem& system) {
    return "gui/" + std::to_string(system.uid);
}

void runAsAdmin(const InstallerSystem& system, const std::string& script, std::string_view prompt) {
    runChecked(system, kOsascript, {"-e", InstallerText::administratorScript(script, prompt)},
               kPromptTimeout);
}

}  // namespace

void installDaemon(const fs::path& daemonBinary, const InstallerSystem& system) {
    const std::string plist = InstallerText::daemonPropertyList(daemonBinary, system.logsDir / "tavrad.log");
    createDirectories(system.daemonServiceFile.parent_path());
    runIgnoringFailure(system, kLaunchctl,
                       {"bootout", guiDomain(system) + "/" + std::string(TavraPaths::daemonLabel)});
    writeFileAtomically(system.daemonServiceFile, plist, 0644);
    runChecked(system, kLaunchctl, {"bootstrap", guiDomain(system), system.daemonServiceFile.string()});
}

void uninstallDaemon(const InstallerSystem& system) noexcept {
    runIgnoringFailure(system, kLaunchctl,
                       {"bootout", guiDomain(system) + "/" + std::string(TavraPaths::daemonLabel)});
    std::error_code ignored;
    fs::remove(system.daemonServiceFile, ignored);
}

void restartDaemon(const InstallerSystem& system) {
    runChecked(system, kLaunchctl,
               {"kickstart", "-k", guiDomain(system) + "/" + std::string(TavraPaths::daemonLabel)});
}

void installHelper(const fs::path& helperBinary, const InstallerSystem& system) {
    const fs::path staging = freshStaging(system);
    const fs::path stagedBinary = staging / "com.tavra.helper";
    copyInto(helperBinary, stagedBinary);
    const fs::path stagedPlist = staging / "com.tavra.helper.plist";
    writeStaged(stagedPlist, InstallerText::helperPropertyList(system.helperBinary, system.uid));
    runAsAdmin(system,
               InstallerText::launchdHelperInstallScript(stagedBinary, stagedPlist, system.helperBinary,
                                                         system.helperServiceFile),
               kInstallPrompt);
    removeQuietly(staging);
}

void uninstallHelper(const InstallerSystem& system) {
    runAsAdmin(system,
               InstallerText::launchdHelperUninstallScript(system.helperBinary, system.helperServiceFile,
                                                           system.helperSocket),
               kUninstallPrompt);
}

}  // namespace LaunchdInstall

// ---- systemd -------------------------------------------------------------------

namespace SystemdInstall {

namespace {

void systemctlUser(const InstallerSystem& system, std::vector<std::string> args) {
    args.insert(args.begin(), "--user");
    runChecked(system, kSystemctl, args);
}

// One prompt for the whole script: pkexec shows the desktop's dialog, sudo
// asks on the terminal, and root needs neither.
void runPrivileged(const InstallerSystem& system, const std::string& script, std::string_view prompt) {
    std::string path = system.privilegeTool;
    std::vector<std::string> args;
    if (path.empty()) {
        path = "/bin/sh";
    } else if (fs::path(path).filename() == "sudo") {
        args = {"-p", std::string(prompt) + " Password: "};
    }
    if (path != "/bin/sh") args.push_back("/bin/sh");
    args.push_back("-c");
    args.push_back(script);
    int status = system.runInteractive(path, args);
    if (status != 0) throw ShellError::failed(Shell::commandLine(path, args), ShellResult{status, {}, {}});
}

InstallerText::SystemdHelperFiles helperFiles(const InstallerSystem& system, const fs::path& staging,
                                              const std::vector<std::string>& services) {
    InstallerText::SystemdHelperFiles files;
    files.stagedBinary = staging / "com.tavra.helper";
    files.stagedUnit = staging / helperUnitName();
    files.stagedDropIn = staging / InstallerText::kDropInName;
    files.helperBinary = system.underRoot(system.helperBinary);
    files.helperUnit = system.underRoot(system.helperServiceFile);
    for (const auto& service : services)
        files.dropInDirs.push_back(system.underRoot("/etc/systemd/system") / (service + ".d"));
    files.leaseFile = system.underRoot(fs::path(InstallerText::kUpdateDeferralLease));
    files.stateDir = system.underRoot(system.helperStateDir);
    files.helperSocket = system.underRoot(system.helperSocket).string();
    return files;
}

}  // namespace

void installDaemon(const fs::path& daemonBinary, const InstallerSystem& system) {
    const std::string unit = InstallerText::daemonUnit(daemonBinary, system.logsDir / "tavrad.log");
    createDirectories(system.daemonServiceFile.parent_path());
    createDirectories(system.logsDir);
    runIgnoringFailure(system, kSystemctl, {"--user", "stop", daemonUnitName()});
    writeFileAtomically(system.daemonServiceFile, unit, 0644);
    systemctlUser(system, {"daemon-reload"});
    systemctlUser(system, {"enable", "--now", daemonUnitName()});
}

void uninstallDaemon(const InstallerSystem& system) noexcept {
    runIgnoringFailure(system, kSystemctl, {"--user", "disable", "--now", daemonUnitName()});
    std::error_code ignored;
    fs::remove(system.daemonServiceFile, ignored);
    runIgnoringFailure(system, kSystemctl, {"--user", "daemon-reload"});
}

void restartDaemon(const InstallerSystem& system) {
    systemctlUser(system, {"restart", daemonUnitName()});
}

std::vector<std::string> presentUpdateServices(const InstallerSystem& system) {
    std::vector<std::string> present;
    for (auto service : InstallerText::kUpdateServices) {
        for (const char* dir : {"/etc/systemd/system", "/usr/lib/systemd/system", "/lib/systemd/system"}) {
            std::error_code ignored;
            if (fs::exists(system.underRoot(dir) / service, ignored)) {
                present.emplace_back(service);
                break;
            }
        }
    }
    return present;
}

void installHelper(const fs::path& helperBinary, const InstallerSystem& system) {
    const fs::path staging = freshStaging(system);
    auto files = helperFiles(system, staging, presentUpdateServices(system));
    copyInto(helperBinary, files.stagedBinary);
    writeStaged(files.stagedUnit, InstallerText::helperUnit(system.helperBinary, system.uid));
    writeStaged(files.stagedDropIn, InstallerText::updateDeferralDropIn());
    runPrivileged(system, InstallerText::systemdHelperInstallScript(files), kInstallPrompt);
    removeQuietly(staging);
}

// Every update service is cleaned, present or not: a service removed since
// the install may have left our drop-in behind.
void uninstallHelper(const InstallerSystem& system) {
    std::vector<std::string> all(InstallerText::kUpdateServices.begin(),
                                 InstallerText::kUpdateServices.end());
    runPrivileged(system, InstallerText::systemdHelperUninstallScript(helperFiles(system, {}, all)),
                  kUninstallPrompt);
}

}  // namespace SystemdInstall

// ---- The running system ----------------------------------------------------

InstallerSystem InstallerSystem::current() {
    InstallerSystem system;
    system.uid = static_cast<std::uint32_t>(::getuid());
    system.run = [](const std::string& path, const std::vector<std::string>& args, double timeout) {
        return Shell::run(path, args, timeout);
    };
    system.runInteractive = runInteractively;
    system.privilegeTool = defaultPrivilegeTool();
    system.daemonServiceFile = TavraPaths::daemonServiceFile();
    system.logsDir = TavraPaths::logsDir();
    system.supportDir = TavraPaths::supportDir();
    system.helperBinary = TavraPaths::helperBinary();
    system.helperServiceFile = TavraPaths::helperServiceFile();
    system.helperSocket = TavraPaths::helperSocket();
    system.helperStateDir = TavraPaths::helperStateDir();
    return system;
}

bool DaemonInstaller::isInstalled(const InstallerSystem& system) {
    std::error_code ignored;
    return std::filesystem::exists(system.daemonServiceFile, ignored);
}

bool HelperInstaller::isInstalled(const InstallerSystem& system) {
    std::error_code ignored;
    return std::filesystem::exists(system.underRoot(system.helperServiceFile), ignored);
}

}  // namespace tavra
