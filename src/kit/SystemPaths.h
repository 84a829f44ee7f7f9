#pragma once

// Where each platform puts the current user's places. Implemented once per
// platform (kit/linux, kit/macos); the shared rules live in Paths.cpp.

#include <filesystem>

namespace tavra::TavraPaths::System {

std::filesystem::path supportDirUnder(const std::filesystem::path& home);
std::filesystem::path logsDirUnder(const std::filesystem::path& home);
std::filesystem::path daemonServiceFileUnder(const std::filesystem::path& home);
std::filesystem::path installDirUnder(const std::filesystem::path& home);

// The running program's own path, or empty when the OS does not say.
std::filesystem::path runningExecutable();

}  // namespace tavra::TavraPaths::System
