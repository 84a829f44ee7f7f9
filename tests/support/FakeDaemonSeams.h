#pragma once

// Fakes for the daemon's own seams: a connection that keeps what it was
// answered, and watchers that record what they were asked and fire when the
// test says so. Header-only: only the daemon's tests include it.

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/ConfigCoding.h"
#include "daemon/DaemonEnvironment.h"
#include "kit/DaemonProtocol.h"

namespace tavra::testing {

class RecordingConnection final : public DaemonConnection {
public:
    std::vector<std::string> replies;
    std::function<void()> hangUp = [] {};  // the peer goes away

    void reply(std::string bytes) override { replies.push_back(std::move(bytes)); }
    void onClosed(std::function<void()> closed) override { hangUp = std::move(closed); }
    // The last reply, decoded; absent while none came.
    std::optional<DaemonResponse> response() const {
        if (replies.empty()) return std::nullopt;
        return TavraJSON::decode<DaemonResponse>(replies.back());
    }
};

// Both watchers in one: the roots of each sync, the handler for writes, and
// the callback of each watched process.
struct FakeWatchers final : DirectoryWatcher, ExitWatcher {
    std::vector<std::set<std::string>> syncs;
    std::function<void(std::string)> changed;
    std::map<Pid, std::function<void()>> processes;

    void sync(const std::set<std::string>& roots) override {
        if (syncs.empty() || syncs.back() != roots) syncs.push_back(roots);
    }
    void watch(Pid pid, std::function<void()> exited) override { processes[pid] = std::move(exited); }
    void exit(Pid pid) { std::exchange(processes.at(pid), {})(); }
};

}  // namespace tavra::testing
