#include "kit/Paths.h"

namespace tavra::TavraPaths {

std::string helperSocket() { return "/var/run/com.tavra.helper.sock"; }
std::filesystem::path helperBinary() { return "/Library/PrivilegedHelperTools/com.tavra.helper"; }
std::filesystem::path helperPlist() { return "/Library/LaunchDaemons/com.tavra.helper.plist"; }
std::filesystem::path helperStateDir() { return "/Library/Application Support/Tavra"; }

}  // namespace tavra::TavraPaths
