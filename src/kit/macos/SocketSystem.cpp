#include "kit/SocketSystem.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tavra::SocketSystem {

namespace {
// Close-on-exec and SO_NOSIGPIPE on a fresh descriptor; closes it on failure.
UniqueFd prepare(int raw) noexcept {
    UniqueFd fd(raw);
    if (!fd) return fd;
    int on = 1;
    if (::fcntl(fd.get(), F_SETFD, FD_CLOEXEC) != 0 ||
        ::setsockopt(fd.get(), SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on) != 0) {
        return {};
    }
    return fd;
}
}  // namespace

UniqueFd openStreamSocket() noexcept {
    return prepare(::socket(AF_UNIX, SOCK_STREAM, 0));
}

UniqueFd acceptConnection(int listenFd) noexcept {
    return prepare(::accept(listenFd, nullptr, nullptr));
}

std::optional<std::uint32_t> peerUid(int fd) noexcept {
    uid_t uid = 0;
    gid_t gid = 0;
    if (::getpeereid(fd, &uid, &gid) != 0) return std::nullopt;
    return static_cast<std::uint32_t>(uid);
}

ssize_t sendSome(int fd, const char* data, std::size_t size) noexcept {
    return ::write(fd, data, size);
}

void nameThread(const char* name) noexcept {
    ::pthread_setname_np(name);
}

}  // namespace tavra::SocketSystem
