#pragma once

// The few process-start details that differ between the supported systems.
// Internal to TavraPlatform; each backend folder defines these.

namespace tavra::SpawnSupport {

// Opens a pipe whose two ends are both close-on-exec from the start, so that
// a tool started by another thread at the same moment cannot inherit them.
// Returns 0, or the errno value of the failure.
int openPipe(int fds[2]) noexcept;

// Flags the platform adds to every posix_spawn (beyond signal mask and
// defaults, which the shared code sets).
short extraSpawnFlags() noexcept;

}  // namespace tavra::SpawnSupport
