#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace tavra::TavraPaths {

// Launch labels, the same on every platform.
inline constexpr std::string_view helperLabel = "com.tavra.helper";
inline constexpr std::string_view daemonLabel = "com.tavra.daemon";

// The helper's fixed places. They never depend on a user, have no override,
// and differ per platform (Linux: /run, /usr/local/libexec, systemd, /var/lib).
std::string helperSocket();
std::filesystem::path helperBinary();
std::filesystem::path helperPlist();
std::filesystem::path helperStateDir();

}  // namespace tavra::TavraPaths
