#include "core/StuckDetector.h"

#include <algorithm>

namespace tavra {

void StuckDetector::noteProgress(Date at) {
    lastProgressAt = at;
    recentSignatures.clear();
}

void StuckDetector::record(const ToolCall& call, Date at) {
    if (call.isFileWrite) noteProgress(at);
    recentSignatures.push_back(call.signature);
    if (recentSignatures.size() > window) {
        auto excess = static_cast<std::ptrdiff_t>(recentSignatures.size() - window);
        recentSignatures.erase(recentSignatures.begin(), recentSignatures.begin() + excess);
    }
}

std::size_t StuckDetector::maxRepeatCount() const {
    // The window holds at most 20 entries: counting each against the entries
    // after it is cheaper than building a map and allocates nothing.
    std::size_t best = 0;
    const std::size_t n = recentSignatures.size();
    for (std::size_t i = 0; i < n && n - i > best; ++i) {
        std::size_t count = 1;
        for (std::size_t k = i + 1; k < n; ++k)
            if (recentSignatures[k] == recentSignatures[i]) ++count;
        best = std::max(best, count);
    }
    return best;
}

bool StuckDetector::isStuck(Date now, double after, int repeatThreshold) const {
    // Written as "not at least" so that a NaN limit never counts as reached.
    if (!(secondsBetween(lastProgressAt, now) >= after)) return false;
    if (repeatThreshold <= 0) return true;
    return maxRepeatCount() >= static_cast<std::size_t>(repeatThreshold);
}

void to_json(Json& j, const StuckDetector& d) {
    j = Json{{"recentSignatures", d.recentSignatures}, {"lastProgressAt", d.lastProgressAt}};
}

void from_json(const Json& j, StuckDetector& d) {
    TavraJSON::requireObject(j, "StuckDetector");
    d.recentSignatures = TavraJSON::required<std::vector<std::string>>(j, "recentSignatures");
    d.lastProgressAt = TavraJSON::required<Date>(j, "lastProgressAt");
}

}  // namespace tavra
