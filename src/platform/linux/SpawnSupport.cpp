#include "platform/SpawnSupport.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>

namespace tavra::SpawnSupport {

int openPipe(int fds[2]) noexcept {
    return ::pipe2(fds, O_CLOEXEC) == 0 ? 0 : errno;
}

// glibc reports a failed exec or chdir from posix_spawn itself (it waits for
// the child with CLONE_VFORK), so nothing more is needed here.
short extraSpawnFlags() noexcept {
    return 0;
}

}  // namespace tavra::SpawnSupport
