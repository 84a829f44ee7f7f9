#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <ostream>
#include <thread>
#include <vector>

#include "remote/Channel.h"

namespace tavra::testing {

// Polls `condition` for up to five seconds.
inline bool eventually(const std::function<bool()>& condition) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// What a channel handed to the daemon, collected from the channel's thread.
struct Inbox {
    std::mutex mutex;
    std::vector<IncomingCommand> commands;

    Channel::Sink sink() {
        return [this](IncomingCommand command) {
            std::lock_guard lock(mutex);
            commands.push_back(std::move(command));
        };
    }
    std::vector<IncomingCommand> seen() {
        std::lock_guard lock(mutex);
        return commands;
    }
};

}  // namespace tavra::testing

namespace tavra {
inline void PrintTo(const IncomingCommand& command, std::ostream* out) {
    *out << '"' << command.text << "\" from " << command.origin.channel << " message "
         << command.origin.message.value_or("-") << " callback " << command.origin.callback.value_or("-");
}
}  // namespace tavra
