#include <memory>

#include "helper/CommandMachine.h"
#include "helper/ShellCommandRunner.h"

namespace tavra {

std::unique_ptr<Machine> makeSystemMachine() {
    return std::make_unique<CommandMachine>(std::make_shared<ShellCommandRunner>());
}

}  // namespace tavra
