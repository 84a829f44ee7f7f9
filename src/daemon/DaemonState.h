#pragma once

// What must survive a restart of the daemon, and the file that keeps it.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/ConfigCoding.h"
#include "core/Date.h"
#include "core/Run.h"
#include "platform/Processes.h"

namespace tavra {

// One process stopped by the daemon, with the identity read before the stop,
// so that a later thaw never signals a newcomer that reuses the pid.
struct FrozenProcess {
    Pid pid = 0;
    std::uint64_t startToken = 0;
    bool operator==(const FrozenProcess&) const = default;
};

// A frozen run: written to disk before the first SIGSTOP, dropped after the
// thaw. `processes` holds the root first, then what the freeze stopped.
struct FreezeRecord {
    RunKey run;
    Pid root = 0;
    std::vector<FrozenProcess> processes;
    bool operator==(const FreezeRecord&) const = default;
};

struct DaemonState {
    std::vector<Run> runs;
    std::optional<Date> stayAwakeUntil;
    std::map<std::string, Date> holds;
    std::vector<FreezeRecord> frozen;
    bool operator==(const DaemonState&) const = default;
};

void to_json(Json& j, const FrozenProcess& value);
void from_json(const Json& j, FrozenProcess& value);
void to_json(Json& j, const FreezeRecord& value);
void from_json(const Json& j, FreezeRecord& value);
void to_json(Json& j, const DaemonState& value);
void from_json(const Json& j, DaemonState& value);

namespace StateFile {

// The saved state. A missing file is an empty state; a damaged one is renamed
// to "{file}.damaged-{epoch}" and gives an empty state, and `log` hears of it.
// Never throws.
DaemonState load(const std::filesystem::path& file, Date now,
                 const std::function<void(const std::string&)>& log) noexcept;

// Writes atomically with mode 0600. Throws FileError.
void save(const DaemonState& state, const std::filesystem::path& file);

}  // namespace StateFile

}  // namespace tavra
