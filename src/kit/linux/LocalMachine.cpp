#include "kit/LocalMachine.h"

namespace tavra::LocalMachine {

MachineWord word() noexcept {
    return kComputerWord;
}

}  // namespace tavra::LocalMachine
