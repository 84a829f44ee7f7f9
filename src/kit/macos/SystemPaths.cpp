#include "kit/SystemPaths.h"

#include <mach-o/dyld.h>

#include <cstdint>
#include <vector>

#include "kit/Paths.h"

namespace tavra::TavraPaths {

std::string helperSocket() {
    return "/var/run/com.tavra.helper.sock";
}
std::filesystem::path helperBinary() {
    return "/Library/PrivilegedHelperTools/com.tavra.helper";
}
std::filesystem::path helperServiceFile() {
    return "/Library/LaunchDaemons/com.tavra.helper.plist";
}
std::filesystem::path helperStateDir() {
    return "/Library/Application Support/Tavra";
}

namespace System {

std::filesystem::path supportDirUnder(const std::filesystem::path& home) {
    return home / "Library/Application Support/Tavra";
}

std::filesystem::path logsDirUnder(const std::filesystem::path& home) {
    return home / "Library/Logs/Tavra";
}

std::filesystem::path daemonServiceFileUnder(const std::filesystem::path& home) {
    return home / "Library/LaunchAgents" / (std::string(daemonLabel) + ".plist");
}

std::filesystem::path installDirUnder(const std::filesystem::path& home) {
    return home / ".tavra/bin";
}

std::filesystem::path runningExecutable() {
    std::uint32_t size = 0;
    _NSGetExecutablePath(nullptr, &size);
    std::vector<char> buffer(size + 1, '\0');
    if (_NSGetExecutablePath(buffer.data(), &size) != 0) return {};
    return std::filesystem::path(buffer.data());
}

}  // namespace System
}  // namespace tavra::TavraPaths
