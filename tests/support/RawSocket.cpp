#include "support/RawSocket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstring>

#include "kit/SocketSystem.h"

namespace tavra::testing {

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

UniqueFd rawConnect(const std::string& path) {
    UniqueFd fd = SocketSystem::openStreamSocket();  // close-on-exec, no SIGPIPE, on every system
    auto address = addressOf(path);
    EXPECT_EQ(::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    timeval timeout{60, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    return fd;
}

bool rawWrite(int fd, std::string_view data) {
    for (ssize_t n = 0; !data.empty(); data.remove_prefix(static_cast<std::size_t>(n)))
        if ((n = SocketSystem::sendSome(fd, data.data(), data.size())) < 1) return false;
    return true;
}

std::string readToEnd(int fd) {
    std::string all;
    char buffer[4096];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;)
        all.append(buffer, static_cast<std::size_t>(n));
    return all;
}

}  // namespace tavra::testing
