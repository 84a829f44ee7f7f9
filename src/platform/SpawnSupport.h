#pragma once

// The few process-start details that differ between the supported systems.
// Internal to TavraPlatform; each backend folder defines these.

namespace tavra::SpawnSupport {

// Flags the platform adds to every posix_spawn (beyond signal mask and
// defaults, which the shared code sets).
short extraSpawnFlags() noexcept;

}  // namespace tavra::SpawnSupport
