#pragma once

#include "helper/Machine.h"

namespace tavra {

// Runs tools through Shell: directly from their path, no environment of its
// own and no working directory. A tool that cannot be started throws
// SpawnError ("{path}: {system message}"). Safe from any thread.
class ShellCommandRunner : public CommandRunner {
public:
    ShellResult run(const std::string& path, const std::vector<std::string>& args,
                    double timeoutSeconds) override;
};

}  // namespace tavra
