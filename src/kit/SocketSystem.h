#pragma once

// The few socket calls that differ between the platforms, so that the
// transport itself is shared code. Internal to the transport.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>

#include "kit/UniqueFd.h"

namespace tavra::SocketSystem {

// A close-on-exec AF_UNIX stream socket whose writes never raise SIGPIPE.
// Empty with errno set on failure.
UniqueFd openStreamSocket() noexcept;

// accept() without the peer's address; the new descriptor is close-on-exec
// and protected against SIGPIPE. Empty with errno set on failure.
UniqueFd acceptConnection(int listenFd) noexcept;

// The user ID of the process at the other end of a connected socket.
std::optional<std::uint32_t> peerUid(int fd) noexcept;

// One write that never raises SIGPIPE. Same result as write(2).
ssize_t sendSome(int fd, const char* data, std::size_t size) noexcept;

// Names the calling thread for debuggers and ps; cut to the platform's limit.
void nameThread(const char* name) noexcept;

}  // namespace tavra::SocketSystem
