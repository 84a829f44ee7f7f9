#include "kit/LocalMachine.h"

namespace tavra::LocalMachine {

MachineWord word() noexcept {
    return kMacWord;
}

}  // namespace tavra::LocalMachine
