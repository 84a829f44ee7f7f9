#pragma once

// Tells the daemon that something was written under a run's working
// directory, ignoring version-control internals, build output and caches.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace asio {
class io_context;
}

namespace tavra {

// The pure rules every backend applies to what its OS reports.
namespace FileActivityRules {

// Path components whose contents never count as progress, compared whole:
// ".git", "node_modules", ".build", "build", "dist", "target", "DerivedData",
// "__pycache__", ".next", ".cache", ".venv".
const std::set<std::string, std::less<>>& noiseComponents();
bool isNoise(std::string_view component) noexcept;

// Whether a change at `path` counts for `root`: only the part of the path
// below the root is looked at (as many leading characters as the root has are
// dropped), split on "/". A change on the root itself counts; one with any
// noise component below the root does not.
bool counts(std::string_view root, std::string_view path) noexcept;

// Whether a batch of changed paths calls the handler: when any one counts.
bool batchCounts(std::string_view root, const std::vector<std::string>& paths) noexcept;

}  // namespace FileActivityRules

// Paces the handler calls of one root: the first change after a quiet spell
// is reported at once, and then at most one call per interval, the changes in
// between folded into one call at the end of the interval.
class ActivityPacer {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr double kIntervalSeconds = 2.0;

    // A change was seen at `now`. Returns when the handler should be called:
    // `now` for at once (call called(now) then), a later time for a call the
    // caller must schedule, or nothing when such a call is already scheduled.
    std::optional<Clock::time_point> changed(Clock::time_point now) noexcept;
    // The handler has been called at `now`.
    void called(Clock::time_point now) noexcept;

private:
    std::optional<Clock::time_point> lastCall_;
    bool scheduled_ = false;
};

// Watches a set of directory roots and calls the handler with the root under
// which something changed.
//
// Context: the handler and the logger run on the io_context given at
// construction; watch, unwatch, sync, watchedRoots and destruction belong to
// the thread that runs it (or to any thread while it does not run). No lock.
// Nothing throws out of the monitor: a root that is missing or cannot be
// watched is simply not in watchedRoots(), and the next sync tries it again;
// an exception thrown by the handler is swallowed. After destruction neither
// callback runs again. The context must outlive the monitor.
//
// On Linux every directory below a root gets a watch, except noise
// directories, which are never even entered; directories that appear later
// are watched as they come. When the system's watch table is full or events
// were lost, the affected roots fall back to their top directory alone, and
// the logger gets one line saying so.
class FileActivityMonitor {
public:
    using Handler = std::function<void(const std::string& root)>;
    using Logger = std::function<void(const std::string& line)>;

    FileActivityMonitor(asio::io_context& context, Handler handler, Logger logger = {});
    ~FileActivityMonitor();
    FileActivityMonitor(const FileActivityMonitor&) = delete;
    FileActivityMonitor& operator=(const FileActivityMonitor&) = delete;

    // Starts watching `root`; nothing when it is watched already or is no
    // directory.
    void watch(const std::string& root);
    // Stops watching `root`; nothing when it is not watched.
    void unwatch(const std::string& root);
    // Makes the watched set equal to `roots`: stale roots go first, then the
    // new ones come.
    void sync(const std::set<std::string>& roots);
    std::set<std::string> watchedRoots() const;
    // Nothing to prepare on any platform; kept so that callers need not care.
    void warmUp() noexcept {}

    // The number of OS watches held (directories on Linux, streams on macOS).
    std::size_t watchCount() const noexcept;

    struct Impl;  // the backend's; internal

private:
    std::shared_ptr<Impl> impl_;
};

}  // namespace tavra
