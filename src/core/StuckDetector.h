#pragma once

// Remembers the signatures of a run's latest tool calls and the moment of its
// last progress, and answers whether the run has made no progress for long
// enough while one call keeps coming back. A plain value carried in Run.

#include <cstddef>
#include <string>
#include <vector>

#include "core/ConfigCoding.h"
#include "core/Date.h"
#include "core/Models.h"

namespace tavra {

struct StuckDetector {
    static constexpr std::size_t window = 20;

    std::vector<std::string> recentSignatures;  // oldest first, at most `window`
    Date lastProgressAt{};

    StuckDetector() = default;
    explicit StuckDetector(Date now) : lastProgressAt(now) {}

    // Progress: the window empties and the progress clock restarts.
    void noteProgress(Date at);

    // Records one call. A file-writing call counts as progress first, so its
    // own signature is the first of the emptied window.
    void record(const ToolCall& call, Date at);

    // Occurrences of the most frequent signature in the window, adjacent or
    // not; 0 when empty.
    std::size_t maxRepeatCount() const;

    // Both limits inclusive. The repeat count is only looked at once the time
    // limit has passed, which is the cheap test.
    bool isStuck(Date now, double after, int repeatThreshold) const;

    bool operator==(const StuckDetector&) const = default;
};

void to_json(Json& j, const StuckDetector& detector);
void from_json(const Json& j, StuckDetector& detector);

}  // namespace tavra
