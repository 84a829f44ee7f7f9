#include "platform/SpawnSupport.h"

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>
#include <cerrno>

namespace tavra::SpawnSupport {

// Only the descriptors named in the file actions reach the child.
short extraSpawnFlags() noexcept {
    return POSIX_SPAWN_CLOEXEC_DEFAULT;
}

}  // namespace tavra::SpawnSupport
