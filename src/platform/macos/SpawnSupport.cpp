#include "platform/SpawnSupport.h"

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>
#include <cerrno>

namespace tavra::SpawnSupport {

// There is no pipe2 here. The short window between pipe() and fcntl() is
// closed for our own children by POSIX_SPAWN_CLOEXEC_DEFAULT below.
int openPipe(int fds[2]) noexcept {
    if (::pipe(fds) != 0) return errno;
    for (int i = 0; i < 2; ++i) {
        if (::fcntl(fds[i], F_SETFD, FD_CLOEXEC) != 0) {
            const int error = errno;
            ::close(fds[0]);
            ::close(fds[1]);
            return error;
        }
    }
    return 0;
}

// Only the descriptors named in the file actions reach the child.
short extraSpawnFlags() noexcept {
    return POSIX_SPAWN_CLOEXEC_DEFAULT;
}

}  // namespace tavra::SpawnSupport
