#include "kit/Paths.h"

namespace tavra::TavraPaths {

std::string helperSocket() { return "/run/com.tavra.helper.sock"; }
std::filesystem::path helperBinary() { return "/usr/local/libexec/com.tavra.helper"; }
std::filesystem::path helperPlist() { return "/etc/systemd/system/com.tavra.helper.service"; }
std::filesystem::path helperStateDir() { return "/var/lib/tavra"; }

}  // namespace tavra::TavraPaths
