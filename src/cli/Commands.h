#pragma once

// The commands of `tavra` beyond the daemon's own, one file per topic.
// Internal to the command line.

#include <exception>
#include <string>

#include "cli/Cli.h"
#include "kit/Config.h"

namespace tavra::cli {

// Something the user must hear about, in these words, with exit status 1,
// or 2 where the words typed were wrong.
class Failure : public std::exception {
public:
    explicit Failure(std::string text, int exitStatus = 1)
        : text_(std::move(text)), exitStatus_(exitStatus) {}
    const char* what() const noexcept override { return text_.c_str(); }
    int exitStatus() const noexcept { return exitStatus_; }

private:
    std::string text_;
    int exitStatus_;
};

// The settings in force: the daemon's, or the file's while it is not running.
struct LoadedConfig {
    TavraConfig config;
    bool fromDaemon = false;
};
LoadedConfig loadConfig(Services& services);

int configShow(const Request& request, Services& services);
int configGet(const Request& request, Services& services);
int configSet(const Request& request, Services& services);

int setup(const Request& request, Services& services);
int uninstall(Services& services);
int doctor(Services& services);

// Saves settings through the daemon, or to the file while it is not running.
void saveConfig(const TavraConfig& config, Services& services);

int pairPhone(const Request& request, Services& services);

}  // namespace tavra::cli
