#include "helper/ShellCommandRunner.h"

#include "platform/Shell.h"

namespace tavra {

CommandResult ShellCommandRunner::run(const std::string& path, const std::vector<std::string>& args,
                                      double timeoutSeconds) {
    auto result = Shell::run(path, args, timeoutSeconds);
    return CommandResult{result.status, std::move(result.stdout), std::move(result.stderr)};
}

}  // namespace tavra
