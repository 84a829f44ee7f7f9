#pragma once

// The channels the configuration switches on, ready to start.

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kit/Config.h"
#include "remote/Channel.h"
#include "remote/HttpClient.h"

namespace tavra {

// One channel for each configured service (Telegram first), talking through
// libcurl and labelled with the short host name. `stateDir` keeps what a
// channel carries across restarts (Telegram's update offset); it is created
// if missing. `log` is called from the channels' threads.
std::vector<std::shared_ptr<Channel>> makeChannels(const TavraConfig& config,
                                                   const std::filesystem::path& stateDir,
                                                   std::function<void(std::string)> log);

// The same over a given client and machine name.
std::vector<std::shared_ptr<Channel>> makeChannels(const TavraConfig& config,
                                                   const std::filesystem::path& stateDir,
                                                   std::function<void(std::string)> log,
                                                   std::shared_ptr<HttpClient> http, std::string machine);

}  // namespace tavra
