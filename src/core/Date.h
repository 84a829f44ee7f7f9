#pragma once

#include <chrono>
#include <cmath>

namespace tavra {

// An absolute time point. Durations are carried as double seconds in all
// arithmetic, so the helpers below are the only conversions the code needs.
using Date = std::chrono::system_clock::time_point;

// Seconds since 1970 as a double (fractions kept).
inline double epochSeconds(Date d) noexcept {
    return std::chrono::duration<double>(d.time_since_epoch()).count();
}

inline Date dateFromEpochSeconds(double seconds) noexcept {
    return Date(std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(seconds)));
}

// b - a in seconds.
inline double secondsBetween(Date a, Date b) noexcept {
    return std::chrono::duration<double>(b - a).count();
}

inline Date addSeconds(Date d, double seconds) noexcept {
    return d + std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(seconds));
}

}  // namespace tavra
