#include "helper/ShellCommandRunner.h"

#include <gtest/gtest.h>

#include "core/Error.h"
#include "helper/CommandMachine.h"

namespace tavra {
namespace {

TEST(ShellCommandRunnerTest, CommandMachineLogsRealFailuresInTheRunFormat) {
    auto runner = std::make_shared<ShellCommandRunner>();
    CommandMachine machine(runner);
    std::vector<std::string> logged;
    machine.attachLog([&](const std::string& message) { logged.push_back(message); });
    machine.run("/bin/sh", {"-c", "echo '  denied ' >&2; exit 1"});
    machine.run("/nonexistent/pmset", {"sleepnow"});
    machine.run("/bin/true", {});
    EXPECT_EQ(logged, (std::vector<std::string>{
                          "/bin/sh -c echo '  denied ' >&2; exit 1 failed: denied",
                          "/nonexistent/pmset failed: /nonexistent/pmset: No such file or directory"}));
}

}  // namespace
}  // namespace tavra
