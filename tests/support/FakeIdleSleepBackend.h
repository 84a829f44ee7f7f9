#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/PowerController.h"

namespace tavra::testing {

// What a RecordingIdleSleepBackend was asked, shared with the test that
// handed the backend over to its owner.
struct IdleSleepLog {
    std::vector<std::string> events;  // "take {name}", "refuse {name}", "drop {id}"
    bool refuse = false;              // answer every take with a refusal
};

// An idle-sleep hold that only records; identifiers count up from 100.
class RecordingIdleSleepBackend final : public IdleSleepBackend {
public:
    explicit RecordingIdleSleepBackend(std::shared_ptr<IdleSleepLog> log) : log_(std::move(log)) {}

    std::optional<std::uint32_t> take(const std::string& name) override {
        if (log_->refuse) {
            log_->events.push_back("refuse " + name);
            return std::nullopt;
        }
        log_->events.push_back("take " + name);
        return nextID_++;
    }

    void drop(std::uint32_t assertionID) override {
        log_->events.push_back("drop " + std::to_string(assertionID));
    }

private:
    std::shared_ptr<IdleSleepLog> log_;
    std::uint32_t nextID_ = 100;
};

}  // namespace tavra::testing
