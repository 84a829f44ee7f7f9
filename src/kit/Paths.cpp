#include "kit/Paths.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <system_error>
#include <vector>

#include "kit/SystemPaths.h"
#include "kit/UnixSocket.h"

namespace tavra::TavraPaths {

namespace fs = std::filesystem;

namespace {

// Creates `dir` and any missing parents. Directories made here get `mode`
// exactly when one is given (the umask cannot widen a private directory),
// otherwise the default 0777 less the umask; existing ones are left alone.
// Failures are ignored: whoever opens a file below will see the real error.
void ensureDirectory(const fs::path& dir, std::optional<mode_t> mode) {
    std::vector<fs::path> missing;
    std::error_code ec;
    for (fs::path p = dir; !p.empty() && !fs::exists(p, ec); p = p.parent_path()) {
        missing.push_back(p);
        if (p == p.parent_path()) break;
    }
    for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
        if (::mkdir(it->c_str(), mode.value_or(0777)) == 0) {
            if (mode) ::chmod(it->c_str(), *mode);
        } else if (errno != EEXIST) {
            return;
        }
    }
}

bool isExecutableFile(const fs::path& path) {
    std::error_code ec;
    if (!fs::is_regular_file(path, ec)) return false;
    return ::access(path.c_str(), X_OK) == 0;
}

}  // namespace

fs::path home() {
    if (const char* value = std::getenv("HOME"); value != nullptr && value[0] != '\0') return fs::path(value);
    // getpwuid_r with a buffer of the size the system suggests; the entry
    // outlives nothing but this call.
    long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(suggested > 0 ? static_cast<std::size_t>(suggested) : 16384);
    struct passwd entry {};
    struct passwd* result = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &result) == 0 && result != nullptr &&
        result->pw_dir != nullptr && result->pw_dir[0] != '\0')
        return fs::path(result->pw_dir);
    return fs::path("/");
}

fs::path supportDir() {
    fs::path dir = System::supportDirUnder(home());
    ensureDirectory(dir, 0700);
    return dir;
}

fs::path config() {
    return supportDir() / "config.json";
}
fs::path journal() {
    return supportDir() / "journal.jsonl";
}
fs::path state() {
    return supportDir() / "state.json";
}
fs::path resumeScripts() {
    return supportDir() / "resume";
}

std::string daemonSocket() {
    std::string path = (supportDir() / "tavrad.sock").string();
    if (path.size() > UnixSocketLimits::kLongestPath) throw SocketError::pathTooLong(path);
    return path;
}

fs::path logsDir() {
    fs::path dir = System::logsDirUnder(home());
    ensureDirectory(dir, std::nullopt);
    return dir;
}

fs::path daemonServiceFile() {
    return System::daemonServiceFileUnder(home());
}
fs::path installDir() {
    return System::installDirUnder(home());
}

fs::path executableDirFrom(const fs::path& invokedAs) {
    std::error_code ec;
    fs::path absolute = fs::absolute(invokedAs, ec);
    if (ec) absolute = invokedAs;
    // weakly_canonical resolves every link along the path that exists and
    // keeps the rest, so a program started through a link finds its target's
    // directory.
    fs::path resolved = fs::weakly_canonical(absolute, ec);
    if (ec) resolved = absolute.lexically_normal();
    return resolved.parent_path();
}

fs::path executableDir() {
    fs::path self = System::runningExecutable();
    if (self.empty()) {
        std::error_code ec;
        fs::path cwd = fs::current_path(ec);
        return ec ? fs::path(".") : cwd;
    }
    return executableDirFrom(self);
}

fs::path sibling(std::string_view name) {
    return sibling(name, executableDir());
}

fs::path sibling(std::string_view name, const fs::path& fromDir) {
    const fs::path file(name);
    const fs::path candidates[] = {
        fromDir / file,
        installDir() / file,
        (fromDir / "../Resources/bin" / file).lexically_normal(),
        (fromDir / "../Helpers" / file).lexically_normal(),
    };
    for (const auto& candidate : candidates) {
        if (isExecutableFile(candidate)) return candidate;
    }
    return candidates[0];
}

}  // namespace tavra::TavraPaths
