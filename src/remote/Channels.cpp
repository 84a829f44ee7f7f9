#include "remote/Channels.h"

#include "remote/ChannelWorker.h"
#include "remote/NtfyChannel.h"
#include "remote/TelegramChannel.h"

namespace tavra {

std::vector<std::shared_ptr<Channel>> makeChannels(const TavraConfig& config,
                                                   const std::filesystem::path& stateDir,
                                                   std::function<void(std::string)> log) {
    return makeChannels(config, stateDir, std::move(log), makeCurlHttpClient(), shortHostName());
}

std::vector<std::shared_ptr<Channel>> makeChannels(const TavraConfig& config,
                                                   const std::filesystem::path& stateDir,
                                                   std::function<void(std::string)> log,
                                                   std::shared_ptr<HttpClient> http, std::string machine) {
    std::vector<std::shared_ptr<Channel>> channels;
    const auto& remote = config.remote;
    if (remote.telegram.isConfigured()) {
        std::error_code ignored;
        std::filesystem::create_directories(stateDir, ignored);
        TelegramChannelOptions options;
        options.settings = remote.telegram;
        options.stateFile = stateDir / "telegram-offset.json";
        options.machine = machine;
        options.http = http;
        options.log = log;
        channels.push_back(std::make_shared<TelegramChannel>(std::move(options)));
    }
    if (remote.ntfy.isConfigured()) {
        NtfyChannelOptions options;
        options.settings = remote.ntfy;
        if (options.settings.server.empty()) options.settings.server = NtfySettings::kDefaultServer;
        options.machine = machine;
        options.http = http;
        options.log = log;
        channels.push_back(std::make_shared<NtfyChannel>(std::move(options)));
    }
    return channels;
}

}  // namespace tavra
