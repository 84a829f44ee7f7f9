#pragma once

// Number formats shared by the engine's alert ids and texts.

#include <cmath>
#include <string>
#include <string_view>

#include "core/Date.h"
#include "core/Models.h"

namespace tavra::EngineText {

// `now` as whole seconds since 1970, truncated towards zero, in decimal.
inline std::string epoch(Date now) {
    return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count());
}

// An alert's id: "{kind}-{epoch}", or "{kind}-{run}-{epoch}" for an alert
// about one run.
inline std::string alertId(std::string_view kind, Date now) {
    return std::string(kind) + "-" + epoch(now);
}
inline std::string alertId(std::string_view kind, const RunKey& run, Date now) {
    return std::string(kind) + "-" + run.description() + "-" + epoch(now);
}

// A value truncated towards zero, in decimal. Values beyond the range of a
// 64-bit integer (and NaN, as 0) are clamped rather than overflowing.
inline std::string wholeNumber(double value) {
    if (std::isnan(value)) return "0";
    double t = std::trunc(value);
    if (t >= 9.2e18) return "9200000000000000000";
    if (t <= -9.2e18) return "-9200000000000000000";
    return std::to_string(static_cast<long long>(t));
}

// Minutes in a limit given in seconds, truncated: 90 s -> "1", 59 s -> "0".
inline std::string wholeMinutes(double seconds) {
    return wholeNumber(seconds / 60);
}

}  // namespace tavra::EngineText
