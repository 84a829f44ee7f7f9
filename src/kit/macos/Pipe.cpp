#include "kit/Pipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace tavra {

int openPipe(Pipe& out) noexcept {
    int fds[2] = {-1, -1};
    if (::pipe(fds) != 0) return errno;
    Pipe pipe{UniqueFd(fds[0]), UniqueFd(fds[1])};
    if (::fcntl(pipe.read.get(), F_SETFD, FD_CLOEXEC) != 0 ||
        ::fcntl(pipe.write.get(), F_SETFD, FD_CLOEXEC) != 0)
        return errno;
    out = std::move(pipe);
    return 0;
}

}  // namespace tavra
