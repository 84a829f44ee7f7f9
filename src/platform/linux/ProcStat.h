#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Processes.h"

namespace tavra::ProcStat {

// The fields of /proc/PID/stat that the process table needs.
struct ProcStat {
    std::string name;  // the 15-character comm, as the kernel keeps it
    char state = '?';  // R, S, D, T, t, Z, X, ...
    Pid parent = 0;
    std::uint64_t startTime = 0;  // clock ticks after boot: tells reused pids apart

    bool operator==(const ProcStat&) const = default;
};

// Parses one stat line. The name sits in parentheses and may itself hold
// blanks and parentheses, so the fields are counted from the last ")".
// Absent when the line does not have that shape.
std::optional<ProcStat> parseProcStat(std::string_view text);

// Drops the " (deleted)" that the kernel appends to the link of a file that
// was removed or replaced since it was opened.
std::string stripDeleted(std::string path);

}  // namespace tavra::ProcStat
