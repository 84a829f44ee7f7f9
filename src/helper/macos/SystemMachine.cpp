#include <memory>

#include "helper/CommandMachine.h"
#include "platform/Shell.h"

namespace tavra {

namespace {
// pmset and defaults through Shell, with no environment and no working
// directory.
class ShellCommandRunner : public CommandRunner {
public:
    CommandResult run(const std::string& path, const std::vector<std::string>& args,
                      double timeoutSeconds) override {
        auto result = Shell::run(path, args, std::nullopt, std::nullopt, timeoutSeconds);
        return CommandResult{result.status, result.stdout, result.stderr};
    }
};
}  // namespace

std::unique_ptr<Machine> makeSystemMachine() {
    return std::make_unique<CommandMachine>(std::make_shared<ShellCommandRunner>());
}

}  // namespace tavra
