#include "platform/SpawnSupport.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>

namespace tavra::SpawnSupport {

// glibc reports a failed exec or chdir from posix_spawn itself (it waits for
// the child with CLONE_VFORK), so nothing more is needed here.
short extraSpawnFlags() noexcept {
    return 0;
}

}  // namespace tavra::SpawnSupport
