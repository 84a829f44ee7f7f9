#pragma once

// Fakes for the helper's seams: a command runner that records every command
// line and answers from a script, sensors set by the test, and a clock the
// test moves by hand.

#include <functional>
#include <map>
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
        if (onRun) onRun(line);  // to look at the world as the command starts
        commands_.push_back(line);
        auto found = answers_.find(line);
        return found == answers_.end() ? ShellResult{} : found->second;
    }
    std::function<void(const std::string& line)> onRun;

    void answer(const std::string& line, ShellResult result) { answers_[line] = std::move(result); }
    const std::vector<std::string>& commands() const { return commands_; }
    void clear() { commands_.clear(); }

private:
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

// A wall clock that moves only when told. The helper under test runs on the
// test's own thread, so neither it nor the log below needs a lock.
class ManualClock {
public:
    Date now() const { return now_; }
    void advance(double seconds) { now_ = addSeconds(now_, seconds); }
    std::function<Date()> function() {
        return [this] { return now_; };
    }

private:
    Date now_ = dateFromEpochSeconds(1740821400);
};

// Log lines as the helper writes them.
class LogCapture {
public:
    std::function<void(const std::string&)> sink() {
        return [this](const std::string& line) { lines_.push_back(line); };
    }
    const std::vector<std::string>& lines() const { return lines_; }
    // The messages without their "{time} " prefix.
    std::vector<std::string> messages() const {
        std::vector<std::string> out;
        for (const auto& line : lines_) out.push_back(line.substr(line.find(' ') + 1));
        return out;
    }
    void clear() { lines_.clear(); }

private:
    std::vector<std::string> lines_;
};

}  // namespace tavra::testing
