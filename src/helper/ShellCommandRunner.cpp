#include "helper/ShellCommandRunner.h"

#include "platform/Shell.h"

namespace tavra {

ShellResult ShellCommandRunner::run(const std::string& path, const std::vector<std::string>& args,
                                    double timeoutSeconds) {
    return Shell::run(path, args, timeoutSeconds);
}

}  // namespace tavra
