#pragma once

// A machine for the installers in a private directory: the user's places
// below `home`, the machine's below `root`, and every command recorded
// instead of run. The privileged script can be carried out for real inside
// the root, with ownership changes and the service manager left out, so
// that a test can compare the whole tree before and after.

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "platform/Installers.h"

namespace tavra::testing {

class FakeInstallerMachine {
public:
    FakeInstallerMachine(std::filesystem::path root, std::filesystem::path home);

    // The Linux layout: systemd places, pkexec for the script.
    InstallerSystem linuxSystem();
    // The macOS layout: launchd places.
    InstallerSystem macSystem();

    // Every command, as path then arguments.
    std::vector<std::vector<std::string>> commands;
    // The status a command answers with, by its path and first argument
    // ("/bin/launchctl bootout"); the rest succeed.
    std::map<std::string, int> statusOf;
    // Carry out scripts given to the privilege tool inside the root.
    bool runScripts = false;

    const std::filesystem::path& root() const { return root_; }
    const std::filesystem::path& home() const { return home_; }

private:
    int answer(const std::string& path, const std::vector<std::string>& args);

    std::filesystem::path root_;
    std::filesystem::path home_;
};

// Every file and directory below `dir` with its content ("d" for a
// directory), for comparing trees.
std::map<std::string, std::string> snapshotTree(const std::filesystem::path& dir);

}  // namespace tavra::testing
