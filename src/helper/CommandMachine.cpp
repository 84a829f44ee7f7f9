#include "helper/CommandMachine.h"

#include "core/Error.h"
#include "platform/Shell.h"

namespace tavra {

CommandMachine::CommandMachine(std::shared_ptr<CommandRunner> runner) : runner_(std::move(runner)) {}

void CommandMachine::run(const std::string& path, const std::vector<std::string>& args) {
    ShellResult result;
    try {
        result = runner_->run(path, args, kCommandTimeout);
    } catch (const Error& e) {
        log(path + " failed: " + e.description());
        return;
    } catch (const std::exception& e) {
        log(path + " failed: " + e.what());
        return;
    }
    if (result.status == 0) return;
    log(Shell::commandLine(path, args) + " failed: " + Shell::trimmingWhitespace(result.stderr));
}

void CommandMachine::setLidSleepDisabled(bool disabled) {
    run(kPmset, {"-a", "disablesleep", disabled ? "1" : "0"});
}

void CommandMachine::sleepNow() {
    run(kPmset, {"sleepnow"});
}

// Read straight through the runner: a missing key is a normal answer here
// (status 1), not a failure worth a log line.
std::optional<std::string> CommandMachine::readUpdateSetting() {
    try {
        auto result = runner_->run(kDefaults, {"read", kUpdateDomain, kUpdateKey}, kReadTimeout);
        if (result.status != 0) return std::nullopt;
        return Shell::trimmingWhitespace(result.stdout);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

void CommandMachine::writeUpdateSetting(bool automatic) {
    run(kDefaults, {"write", kUpdateDomain, kUpdateKey, "-bool", automatic ? "true" : "false"});
}

void CommandMachine::deleteUpdateSetting() {
    run(kDefaults, {"delete", kUpdateDomain, kUpdateKey});
}

}  // namespace tavra
