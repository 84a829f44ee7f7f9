#pragma once

// The one form of the programs' log: an ISO 8601 time in UTC, a blank and
// the message, one line each on standard output.

#include <string>
#include <string_view>

#include "core/Date.h"

namespace tavra::LogLine {

// "2025-03-01T09:30:00Z {message}".
std::string format(Date now, std::string_view message);

// Writes `line` and a newline in one call and flushes at once, so that lines
// from several threads never interleave and a crash loses none. Never throws.
void write(const std::string& line) noexcept;

}  // namespace tavra::LogLine
