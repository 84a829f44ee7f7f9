#include "platform/FileActivityMonitor.h"

#include <algorithm>

namespace tavra {

namespace FileActivityRules {

const std::set<std::string, std::less<>>& noiseComponents() {
    static const std::set<std::string, std::less<>> components{
        ".git",        "node_modules", ".build", "build",  "dist", "target",
        "DerivedData", "__pycache__",  ".next",  ".cache", ".venv"};
    return components;
}

bool isNoise(std::string_view component) noexcept {
    const auto& components = noiseComponents();
    return components.find(component) != components.end();
}

bool counts(std::string_view root, std::string_view path) noexcept {
    // The root's own components never count against it: a project that lives
    // in a folder named "build" is watched like any other.
    path.remove_prefix(std::min(root.size(), path.size()));
    while (!path.empty()) {
        auto slash = path.find('/');
        auto component = path.substr(0, slash);
        if (!component.empty() && isNoise(component)) return false;
        if (slash == std::string_view::npos) break;
        path.remove_prefix(slash + 1);
    }
    return true;
}

bool batchCounts(std::string_view root, const std::vector<std::string>& paths) noexcept {
    return std::any_of(paths.begin(), paths.end(),
                       [root](const std::string& path) { return counts(root, path); });
}

}  // namespace FileActivityRules

std::optional<ActivityPacer::Clock::time_point> ActivityPacer::changed(Clock::time_point now) noexcept {
    if (scheduled_) return std::nullopt;
    const auto interval =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(kIntervalSeconds));
    if (!lastCall_ || now - *lastCall_ >= interval) return now;
    scheduled_ = true;
    return *lastCall_ + interval;
}

void ActivityPacer::called(Clock::time_point now) noexcept {
    lastCall_ = now;
    scheduled_ = false;
}

void FileActivityMonitor::sync(const std::set<std::string>& roots) {
    for (const auto& root : watchedRoots())
        if (roots.count(root) == 0) unwatch(root);
    auto present = watchedRoots();
    for (const auto& root : roots)
        if (present.count(root) == 0) watch(root);
}

}  // namespace tavra
