#include "kit/SystemPaths.h"

#include <cstdlib>
#include <system_error>

#include "kit/Paths.h"

namespace tavra::TavraPaths {

std::string helperSocket() {
    return "/run/com.tavra.helper.sock";
}
std::filesystem::path helperBinary() {
    return "/usr/local/libexec/com.tavra.helper";
}
std::filesystem::path helperServiceFile() {
    return "/etc/systemd/system/com.tavra.helper.service";
}
std::filesystem::path helperStateDir() {
    return "/var/lib/tavra";
}

namespace System {

namespace {

// An XDG base directory: the variable when it holds an absolute path (the
// XDG rules say relative values are to be ignored), else home / fallback.
std::filesystem::path xdgDir(const char* variable, const std::filesystem::path& home,
                             const std::filesystem::path& fallback) {
    const char* value = std::getenv(variable);
    if (value != nullptr && value[0] == '/') return std::filesystem::path(value);
    return home / fallback;
}

}  // namespace

std::filesystem::path supportDirUnder(const std::filesystem::path& home) {
    return xdgDir("XDG_DATA_HOME", home, ".local/share") / "tavra";
}

std::filesystem::path logsDirUnder(const std::filesystem::path& home) {
    return xdgDir("XDG_STATE_HOME", home, ".local/state") / "tavra";
}

std::filesystem::path daemonServiceFileUnder(const std::filesystem::path& home) {
    return xdgDir("XDG_CONFIG_HOME", home, ".config") / "systemd/user" /
           (std::string(daemonLabel) + ".service");
}

std::filesystem::path installDirUnder(const std::filesystem::path& home) {
    return home / ".local/bin";
}

std::filesystem::path runningExecutable() {
    std::error_code ec;
    auto path = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) return {};
    return path;
}

}  // namespace System
}  // namespace tavra::TavraPaths
