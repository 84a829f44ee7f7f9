#include "platform/Processes.h"

#include <csignal>
#include <map>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace tavra {

namespace {

constexpr int kMaxAncestorSteps = 12;

std::string_view lastComponent(std::string_view path) {
    auto slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// True when the OS-given short name `name` stands for `wanted`: equal, or,
// when the OS cut the name at `limit` characters, the beginning of it.
bool shortNameIs(std::string_view name, std::string_view wanted, std::size_t limit) {
    if (name == wanted) return true;
    return limit > 0 && name.size() == limit && wanted.size() > limit && wanted.starts_with(name);
}

bool shortNameInSet(std::string_view name, const std::set<std::string>& set, std::size_t limit) {
    if (set.contains(std::string(name))) return true;
    if (limit == 0 || name.size() != limit) return false;
    for (const auto& entry : set) {
        if (shortNameIs(name, entry, limit)) return true;
    }
    return false;
}

// Never signal the kernel, init, ourselves or the one who started us,
// whatever a caller or a race hands us.
bool mayBeSignalled(const ProcessTable& table, Pid pid) {
    return pid >= 2 && pid != table.ownPID() && pid != table.ownParent();
}

std::uint64_t startTokenOf(const ProcessTable& table, Pid pid) {
    auto row = table.row(pid);
    return row ? row->startToken : 0;
}

}  // namespace

namespace ProcessInfoReader {

const std::set<std::string>& wrapperNames() {
    static const std::set<std::string> names{"sh", "bash", "zsh", "dash", "fish", "env", "tavra"};
    return names;
}

std::vector<Pid> allPIDs() {
    return systemProcessTable().allPIDs();
}
std::optional<std::string> name(Pid pid) {
    return systemProcessTable().name(pid);
}
std::optional<std::string> path(Pid pid) {
    return systemProcessTable().path(pid);
}
std::optional<std::string> cwd(Pid pid) {
    return systemProcessTable().cwd(pid);
}
bool isAlive(Pid pid) {
    return systemProcessTable().isAlive(pid);
}

std::optional<Pid> parent(Pid pid) {
    auto row = systemProcessTable().row(pid);
    if (!row) return std::nullopt;
    return row->parent;
}

bool matches(Pid pid, const std::vector<std::string>& names) {
    return matches(systemProcessTable(), pid, names);
}

bool matches(const ProcessTable& table, Pid pid, const std::vector<std::string>& names) {
    if (names.empty()) return false;
    const std::string name = table.name(pid).value_or("");
    const std::string path = table.path(pid).value_or("");
    const std::string_view base = lastComponent(path);
    const std::size_t limit = table.nameLimit();
    for (const auto& n : names) {
        // An empty name would match every process whose name cannot be read.
        if (n.empty()) continue;
        // The executable's base name is the reliable one; the short name may
        // be cut by the OS or changed by the process itself.
        if (base == n) return true;
        if (shortNameIs(name, n, limit)) return true;
        // Versioned executables such as "claude-2.0.1".
        if (base.size() > n.size() && base.starts_with(n) && base[n.size()] == '-') return true;
        // Installed under a directory of that name, such as ".../claude/bin/node".
        if (path.find("/" + n + "/") != std::string::npos) return true;
    }
    return false;
}

std::optional<Pid> findAgentAncestor(Pid from, const std::vector<std::string>& names) {
    return findAgentAncestor(systemProcessTable(), from, names);
}

std::optional<Pid> findAgentAncestor(const ProcessTable& table, Pid from,
                                     const std::vector<std::string>& names) {
    std::optional<Pid> fallback;
    Pid current = from;
    for (int step = 0; step < kMaxAncestorSteps; ++step) {
        auto row = table.row(current);
        if (!row) break;
        const Pid candidate = row->parent;
        if (candidate < 2) break;
        if (matches(table, candidate, names)) return candidate;
        if (!fallback && !wrapperNames().contains(table.name(candidate).value_or(""))) {
            fallback = candidate;
        }
        current = candidate;
    }
    return fallback;
}

std::vector<Pid> descendants(Pid of) {
    return descendants(systemProcessTable(), of);
}

std::vector<Pid> descendants(const ProcessTable& table, Pid of) {
    std::vector<Pid> result;
    for (const auto& row : descendantRows(table, of)) result.push_back(row.pid);
    return result;
}

std::vector<ProcessRow> descendantRows(const ProcessTable& table, Pid of) {
    // One snapshot of the whole table, children in the order of allPIDs.
    std::unordered_map<Pid, std::vector<ProcessRow>> children;
    for (Pid pid : table.allPIDs()) {
        if (auto row = table.row(pid)) children[row->parent].push_back(*row);
    }

    std::vector<ProcessRow> result;
    std::vector<ProcessRow> stack;
    if (auto it = children.find(of); it != children.end()) stack = it->second;
    std::unordered_set<Pid> seen{of};
    while (!stack.empty()) {
        ProcessRow row = stack.back();
        stack.pop_back();
        if (!seen.insert(row.pid).second) continue;
        result.push_back(row);
        if (auto it = children.find(row.pid); it != children.end()) {
            stack.insert(stack.end(), it->second.begin(), it->second.end());
        }
    }
    return result;
}

}  // namespace ProcessInfoReader

namespace ProcessFreezer {

const std::set<std::string>& neverFreeze() {
    static const std::set<std::string> names{
        // Session, window system, terminals and multiplexers everywhere.
        "launchd", "login", "loginwindow", "WindowServer", "sshd", "tmux", "screen", "mosh-server",
        "Terminal", "iTerm2", "Ghostty", "ghostty", "Alacritty", "alacritty", "kitty", "WezTerm",
        "wezterm-gui", "Warp", "stable", "Hyper", "Code", "Code Helper", "Cursor", "Cursor Helper",
        "Electron", "Finder", "Dock",
        // Their Linux counterparts.
        "gnome-terminal-server", "konsole", "xterm", "foot", "tilix", "ptyxis", "sshd-session", "agetty",
        "systemd", "dbus-daemon", "dbus-broker", "Xorg", "Xwayland", "gnome-shell", "kwin_wayland"};
    return names;
}

bool isFreezable(Pid pid) {
    return isFreezable(systemProcessTable(), pid);
}

bool isFreezable(const ProcessTable& table, Pid pid) {
    if (!mayBeSignalled(table, pid)) return false;
    const auto& never = neverFreeze();
    if (shortNameInSet(table.name(pid).value_or(""), never, table.nameLimit())) return false;
    const std::string path = table.path(pid).value_or("");
    if (never.contains(std::string(lastComponent(path)))) return false;
    return true;
}

std::vector<Pid> freeze(Pid root) {
    return freeze(systemProcessTable(), root);
}

std::vector<Pid> freeze(const ProcessTable& table, Pid root) {
    std::vector<Pid> stopped;
    // The identity is read before the checks, so that the stop reaches the
    // process that was checked and not one that took over its pid meanwhile.
    const std::uint64_t rootToken = startTokenOf(table, root);
    if (!isFreezable(table, root)) return stopped;
    if (!table.isAlive(root)) return stopped;

    // The root first, so it cannot fork new children while its tree is
    // being walked and stopped.
    if (table.sendSignal(root, SIGSTOP, rootToken)) stopped.push_back(root);

    // A freezable root stops its whole tree: descendants are not asked
    // whether they are freezable, only guarded against the untouchables.
    for (const auto& row : ProcessInfoReader::descendantRows(table, root)) {
        if (!mayBeSignalled(table, row.pid)) continue;
        if (table.sendSignal(row.pid, SIGSTOP, row.startToken)) stopped.push_back(row.pid);
    }
    return stopped;
}

void thaw(Pid root, const std::vector<Pid>& alsoThaw) {
    thaw(systemProcessTable(), root, alsoThaw);
}

void thaw(const ProcessTable& table, Pid root, const std::vector<Pid>& alsoThaw) {
    // What was stopped, joined by what the tree holds now, so that a process
    // that slipped in after the freeze's snapshot is continued too.
    std::map<Pid, std::uint64_t> members;
    for (Pid pid : alsoThaw) members.emplace(pid, 0);
    for (const auto& row : ProcessInfoReader::descendantRows(table, root)) {
        members[row.pid] = row.startToken;
    }
    for (const auto& [pid, token] : members) {
        if (!mayBeSignalled(table, pid) || pid == root) continue;
        table.sendSignal(pid, SIGCONT, token);
    }
    // The root last, the reverse of freeze: its children are running again
    // before it can wait on them or signal them.
    if (mayBeSignalled(table, root)) table.sendSignal(root, SIGCONT, startTokenOf(table, root));
}

void thaw(const std::vector<Pid>& pids) {
    thaw(systemProcessTable(), pids);
}

void thaw(const ProcessTable& table, const std::vector<Pid>& pids) {
    for (Pid pid : pids) {
        if (!mayBeSignalled(table, pid)) continue;
        table.sendSignal(pid, SIGCONT, 0);
    }
}

}  // namespace ProcessFreezer

}  // namespace tavra
