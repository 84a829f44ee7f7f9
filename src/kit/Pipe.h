#pragma once

#include "kit/UniqueFd.h"

namespace tavra {

// Both ends of one pipe.
struct Pipe {
    UniqueFd read;
    UniqueFd write;
};

// Opens a pipe whose ends are close-on-exec, so that a tool started by
// another thread at the same moment does not inherit them (on macOS, which
// has no pipe2, our own spawns close the short window with
// POSIX_SPAWN_CLOEXEC_DEFAULT). Returns 0 and fills `out`, or the errno value
// of the failure. Implemented per platform.
int openPipe(Pipe& out) noexcept;

}  // namespace tavra
