#include "support/FakeHelperMachine.h"

namespace tavra::testing {

CommandResult RecordingCommandRunner::run(const std::string& path, const std::vector<std::string>& args,
                                          double timeoutSeconds) {
    std::string line = path;
    for (const auto& arg : args) line += " " + arg;
    std::lock_guard lock(mutex_);
    commands_.push_back(line);
    timeouts_.push_back(timeoutSeconds);
    if (auto failure = startFailures_.find(line); failure != startFailures_.end())
        throw Error(failure->second);
    if (auto found = answers_.find(line); found != answers_.end()) return found->second;
    return {};
}

void RecordingCommandRunner::answer(const std::string& line, CommandResult result) {
    std::lock_guard lock(mutex_);
    answers_[line] = std::move(result);
}

void RecordingCommandRunner::failToStart(const std::string& line, std::string description) {
    std::lock_guard lock(mutex_);
    startFailures_[line] = std::move(description);
}

std::vector<std::string> RecordingCommandRunner::commands() const {
    std::lock_guard lock(mutex_);
    return commands_;
}

std::vector<double> RecordingCommandRunner::timeouts() const {
    std::lock_guard lock(mutex_);
    return timeouts_;
}

void RecordingCommandRunner::clear() {
    std::lock_guard lock(mutex_);
    commands_.clear();
    timeouts_.clear();
}

std::vector<std::string> LogCapture::messages() const {
    std::vector<std::string> out;
    for (const auto& line : lines()) {
        auto blank = line.find(' ');
        out.push_back(blank == std::string::npos ? line : line.substr(blank + 1));
    }
    return out;
}

}  // namespace tavra::testing
