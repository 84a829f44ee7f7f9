#pragma once

// Fakes for the helper's seams: a command runner that records every command
// line and answers from a script, sensors set by the test, and a clock the
// test moves by hand.

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/Date.h"
#include "helper/Machine.h"

namespace tavra::testing {

// Records "path arg1 arg2 ..." for every run. A command's answer is looked up
// by its full line; unknown lines succeed with empty output.
class RecordingCommandRunner : public CommandRunner {
public:
    ShellResult run(const std::string& path, const std::vector<std::string>& args, double) override {
        std::string line = path;
        for (const auto& arg : args) line += " " + arg;
        if (onRun) onRun(line);
        std::lock_guard lock(mutex_);
        commands_.push_back(line);
        if (auto found = answers_.find(line); found != answers_.end()) return found->second;
        return {};
    }

    // Called with each command line as it starts, to look at the world at
    // that moment. Set before the runner is used.
    std::function<void(const std::string& line)> onRun;

    void answer(const std::string& line, ShellResult result) {
        std::lock_guard lock(mutex_);
        answers_[line] = std::move(result);
    }

    std::vector<std::string> commands() const {
        std::lock_guard lock(mutex_);
        return commands_;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        commands_.clear();
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> commands_;
    std::map<std::string, ShellResult> answers_;
};

class FakeHelperSensors : public HelperSensors {
public:
    bool thermalCritical() override { return critical; }
    PowerReading power() override { return reading; }
    bool lidClosed() override { return closed; }

    bool critical = false;
    PowerReading reading{};
    bool closed = false;
};

// A wall clock that moves only when told.
class ManualClock {
public:
    explicit ManualClock(Date start = dateFromEpochSeconds(1740821400)) : now_(start) {}
    Date now() const {
        std::lock_guard lock(mutex_);
        return now_;
    }
    void advance(double seconds) {
        std::lock_guard lock(mutex_);
        now_ = addSeconds(now_, seconds);
    }
    std::function<Date()> function() {
        return [this] { return now(); };
    }

private:
    mutable std::mutex mutex_;
    Date now_;
};

// Log lines as the helper writes them, thread-safe.
class LogCapture {
public:
    std::function<void(const std::string&)> sink() {
        return [this](const std::string& line) {
            std::lock_guard lock(mutex_);
            lines_.push_back(line);
        };
    }
    std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    // The messages without their "{time} " prefix.
    std::vector<std::string> messages() const {
        std::vector<std::string> out;
        for (const auto& line : lines()) out.push_back(line.substr(line.find(' ') + 1));
        return out;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        lines_.clear();
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace tavra::testing
