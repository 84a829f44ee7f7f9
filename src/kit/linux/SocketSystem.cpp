#include "kit/SocketSystem.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace tavra::SocketSystem {

UniqueFd openStreamSocket() noexcept {
    return UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

UniqueFd acceptConnection(int listenFd) noexcept {
    return UniqueFd(::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC));
}

std::optional<std::uint32_t> peerUid(int fd) noexcept {
    struct ucred credentials {};
    socklen_t length = sizeof credentials;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return std::nullopt;
    return static_cast<std::uint32_t>(credentials.uid);
}

// MSG_NOSIGNAL protects each write; no process-wide SIGPIPE disposition is needed.
ssize_t sendSome(int fd, const char* data, std::size_t size) noexcept {
    return ::send(fd, data, size, MSG_NOSIGNAL);
}

void nameThread(const char* name) noexcept {
    char shortName[16] = {};  // the kernel keeps 15 bytes and the terminator
    std::strncpy(shortName, name, sizeof shortName - 1);
    ::pthread_setname_np(::pthread_self(), shortName);
}

}  // namespace tavra::SocketSystem
