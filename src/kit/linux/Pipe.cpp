#include "kit/Pipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace tavra {

int openPipe(Pipe& out) noexcept {
    int fds[2] = {-1, -1};
    if (::pipe2(fds, O_CLOEXEC) != 0) return errno;
    out.read.reset(fds[0]);
    out.write.reset(fds[1]);
    return 0;
}

}  // namespace tavra
