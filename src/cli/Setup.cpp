// `tavra setup`, `tavra uninstall` and `tavra doctor`: the permanent install
// of the tools, the two background processes and the agents' hooks.

#include <cstdlib>
#include <system_error>

#include "cli/Commands.h"
#include "cli/HookEntries.h"
#include "kit/AtomicFile.h"
#include "kit/Config.h"
#include "kit/Paths.h"
#include "kit/UnixSocket.h"

namespace tavra::cli {

namespace {

namespace fs = std::filesystem;

constexpr const char* kTools[] = {"tavra", "tavrad", "tavra-hook"};
constexpr std::string_view kDone = "✓";
constexpr std::string_view kFailed = "✗";

void line(Services& services, bool ok, const std::string& text) {
    *services.out << (ok ? kDone : kFailed) << " " << text << "\n";
}

bool sameFile(const fs::path& a, const fs::path& b) {
    std::error_code error;
    return fs::equivalent(a, b, error);
}

// Copies one tool next to the others, through a temporary file renamed into
// place, so a running copy (this very program) is never written over.
void installTool(const fs::path& from, const fs::path& to) {
    if (sameFile(from, to)) return;
    fs::path temporary = to;
    temporary += ".new";
    std::error_code error;
    fs::copy_file(from, temporary, fs::copy_options::overwrite_existing, error);
    if (!error) fs::permissions(temporary, fs::perms(0755), fs::perm_options::replace, error);
    if (!error) fs::rename(temporary, to, error);
    if (error) {
        fs::remove(temporary, error);
        throw Failure("Could not install " + to.string() + ": " + error.message());
    }
}

// Installed programs lie side by side; in a build tree each has its own
// folder next to this one's (src/cli/tavra beside src/daemon/tavrad).
fs::path findTool(Services& services, std::string_view name) {
    static constexpr std::pair<std::string_view, std::string_view> kBuildFolders[] = {
        {"tavra", "cli"}, {"tavrad", "daemon"}, {"tavra-hook", "hook"}, {"tavra-helper", "helper"}};
    fs::path found = TavraPaths::sibling(name, services.executableDir);
    std::error_code error;
    if (fs::exists(found, error)) return found;
    for (const auto& [tool, folder] : kBuildFolders) {
        fs::path inBuild = services.executableDir.parent_path() / folder / tool;
        if (tool == name && fs::exists(inBuild, error)) return inBuild;
    }
    throw Failure(std::string(name) + " was not found beside " + (services.executableDir / "tavra").string() +
                  "; build it first.");
}

// Directories that setup's own steps created are gone again once they are
// empty; the home directory itself is never touched.
void removeEmptyUpTo(fs::path dir, const fs::path& stop) {
    std::error_code error;
    while (!dir.empty() && dir != stop && dir.has_relative_path() &&
           dir.string().rfind(stop.string() + "/", 0) == 0) {
        if (!fs::is_directory(dir, error) || !fs::is_empty(dir, error)) return;
        fs::remove(dir, error);
        if (error) return;
        dir = dir.parent_path();
    }
}

bool onPath(const fs::path& dir) {
    const char* path = std::getenv("PATH");
    std::string_view rest = path != nullptr ? path : "";
    while (!rest.empty()) {
        auto colon = rest.find(':');
        if (sameFile(fs::path(rest.substr(0, colon)), dir)) return true;
        if (colon == std::string_view::npos) break;
        rest.remove_prefix(colon + 1);
    }
    return false;
}

// The service manager has started the daemon; give it a few seconds to open
// its socket.
bool daemonAnswers(Services& services) {
    for (int attempt = 0; attempt < 50; ++attempt) {
        try {
            DaemonResponse response = services.send(DaemonRequest::ping(), 1.0);
            if (std::holds_alternative<DaemonResponse::Ok>(response.value)) return true;
        } catch (const Error&) {
            // Not listening yet.
        }
        services.sleep(0.1);
    }
    return false;
}

int approvalWait(Services& services) {
    try {
        return HookEntries::waitTimeout(loadConfig(services).config.remote.approvalTimeout);
    } catch (const std::exception&) {
        return HookEntries::waitTimeout(TavraConfig{}.remote.approvalTimeout);
    }
}

bool installAgentHooks(Services& services) {
    bool allOk = true;
    int wait = approvalWait(services);
    fs::path program = services.installDir / "tavra-hook";
    for (const auto& agent : agentHookFiles(services.home)) {
        std::error_code error;
        if (!fs::is_directory(agent.configDir, error)) {
            *services.out << "- " << agent.displayName << " not found (" << agent.configDir.string()
                          << "); skipped\n";
            continue;
        }
        try {
            bool changed = installHooks(agent, HookEntries::hookCommand(program, agent.agent),
                                        HookEntries::entriesFor(agent.agent, wait));
            line(services, true,
                 agent.displayName + " hooks " + (changed ? "added to " : "already in ") +
                     agent.file.string());
            if (agent.agent == "codex" && changed)
                *services.out << "  Codex runs new hooks only once you trust them: start codex, type /hooks "
                                 "and trust Tavra's entries.\n";
        } catch (const Error& failure) {
            line(services, false, agent.displayName + " hooks: " + failure.description());
            allOk = false;
        }
    }
    return allOk;
}

}  // namespace

int setup(const Request& request, Services& services) {
    InstallerSystem system = services.installerSystem();
    std::error_code error;
    fs::create_directories(services.installDir, error);
    std::vector<fs::path> found;  // all of them first: nothing is copied when one is missing
    for (const char* tool : kTools) found.push_back(findTool(services, tool));
    for (std::size_t i = 0; i < found.size(); ++i) installTool(found[i], services.installDir / kTools[i]);
    line(services, true, "tavra, tavrad and tavra-hook installed in " + services.installDir.string());
    if (!onPath(services.installDir))
        *services.out << "  Add " << services.installDir.string()
                      << " to your PATH to type `tavra` anywhere.\n";

    bool ok = true;
    try {
        DaemonInstaller::install(services.installDir / "tavrad", system);
        ok = daemonAnswers(services);
        line(
            services, ok,
            ok ? "daemon installed and running" : "daemon installed but not answering yet; see `tavra logs`");
    } catch (const std::exception& failure) {
        line(services, false, std::string("daemon service not installed: ") + failure.what());
        *services.out << "  Without a service manager for your user, start " << services.installDir.string()
                      << "/tavrad yourself.\n";
        ok = false;
    }
    if (!request.withoutHelper) {
        try {
            HelperInstaller::install(findTool(services, "tavra-helper"), system);
            line(services, true, "helper installed (lid-closed operation and update deferral)");
        } catch (const std::exception& failure) {
            line(services, false, std::string("helper not installed: ") + failure.what());
            *services.out << "  Without it the machine still stays awake, but not with the lid closed. "
                             "Run `tavra setup` again to retry.\n";
            ok = false;
        }
    }
    if (!request.withoutHooks) ok = installAgentHooks(services) && ok;
    return ok ? 0 : 1;
}

int uninstall(Services& services) {
    InstallerSystem system = services.installerSystem();
    bool ok = true;
    for (const auto& agent : agentHookFiles(services.home)) {
        try {
            if (uninstallHooks(agent)) line(services, true, agent.displayName + " hooks removed");
        } catch (const Error& failure) {
            line(services, false, agent.displayName + " hooks: " + failure.description());
            ok = false;
        }
    }
    if (HelperInstaller::isInstalled(system)) {
        try {
            HelperInstaller::uninstall(system);
            line(services, true, "helper removed; lid sleep and updates are as the system had them");
        } catch (const Error& failure) {
            line(services, false, "helper not removed: " + failure.description());
            ok = false;
        }
    }
    bool daemonWasInstalled = DaemonInstaller::isInstalled(system);
    DaemonInstaller::uninstall(system);
    if (daemonWasInstalled) line(services, true, "daemon stopped and removed");

    std::error_code error;
    for (const char* tool : kTools) fs::remove(services.installDir / tool, error);
    for (const fs::path& dir :
         {system.daemonServiceFile.parent_path(), services.installDir, system.supportDir, system.logsDir})
        removeEmptyUpTo(dir, services.home);
    if (fs::exists(system.supportDir, error))
        *services.out << "Your settings and journal stay in " << system.supportDir.string() << ".\n";
    return ok ? 0 : 1;
}

int doctor(Services& services) {
    bool ok = true;
    auto check = [&](bool passed, const std::string& what, const std::string& fix) {
        *services.out << (passed ? kDone : kFailed) << " " << what;
        if (!passed) *services.out << " — " << fix;
        *services.out << "\n";
        ok = ok && passed;
    };
    InstallerSystem system = services.installerSystem();

    std::optional<DaemonStatus> status;
    try {
        DaemonResponse response = services.send(DaemonRequest::status(), 5.0);
        if (auto* reply = std::get_if<DaemonResponse::Status>(&response.value)) status = reply->status;
    } catch (const Error&) {
    }
    check(status.has_value(), "daemon running",
          DaemonInstaller::isInstalled(system) ? "start it with `" + services.daemonStartCommand + "`."
                                               : "run `tavra setup`.");
    const bool helperInstalled = HelperInstaller::isInstalled(system);
    check(helperInstalled, "helper installed", "run `tavra setup` (asks for your password).");
    if (helperInstalled)
        check(services.helperAnswers(), "helper answering",
              "the helper's service is not running; run `tavra setup` again.");

    int wait = approvalWait(services);
    for (const auto& agent : agentHookFiles(services.home)) {
        std::error_code error;
        if (!fs::is_directory(agent.configDir, error)) continue;
        bool present = HookEntries::present(readWholeFile(agent.file).value_or(""),
                                            HookEntries::entriesFor(agent.agent, wait));
        check(present, agent.displayName + " hooks present", "run `tavra setup`.");
    }
    for (const auto& service : services.systemChecks()) check(service.ok, service.name, service.fix);

    // Reaching the chat services is the channels' own business; here only
    // whether each switched-on channel has what it needs.
    const RemoteSettings remote = loadConfig(services).config.remote;
    if (remote.telegram.enabled)
        check(remote.telegram.isConfigured(), "Telegram configured",
              "it needs a bot token and a chat; pair it again.");
    if (remote.ntfy.enabled)
        check(remote.ntfy.isConfigured(), "ntfy configured", "it needs a topic; pair it again.");
    if (!remote.telegram.enabled && !remote.ntfy.enabled)
        *services.out << "- no phone channel configured (see README: Telegram or ntfy)\n";
    return ok ? 0 : 1;
}

}  // namespace tavra::cli
