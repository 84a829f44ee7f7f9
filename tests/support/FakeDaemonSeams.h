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

    void reply(std::string bytes) override { replies.push_back(std::move(bytes)); }
    void onClosed(std::function<void()> closed) override { closed_ = std::move(closed); }
    void hangUp() {
        if (closed_) closed_();
    }
    // The last reply, decoded; absent while none came.
    std::optional<DaemonResponse> response() const {
        if (replies.empty()) return std::nullopt;
        return TavraJSON::decode<DaemonResponse>(replies.back());
    }

private:
    std::function<void()> closed_;
};

class FakeDirectoryWatcher final : public DirectoryWatcher {
public:
    struct Log {
        std::vector<std::set<std::string>> syncs;  // each change of the watched set
        std::function<void(std::string)> handler;
    };
    explicit FakeDirectoryWatcher(std::shared_ptr<Log> log) : log_(std::move(log)) {}
    void sync(const std::set<std::string>& roots) override {
        if (log_->syncs.empty() || log_->syncs.back() != roots) log_->syncs.push_back(roots);
    }

private:
    std::shared_ptr<Log> log_;
};

class FakeExitWatcher final : public ExitWatcher {
public:
    struct Log {
        std::map<Pid, std::function<void()>> watched;
        void exit(Pid pid) { std::exchange(watched.at(pid), {})(); }
    };
    explicit FakeExitWatcher(std::shared_ptr<Log> log) : log_(std::move(log)) {}
    void watch(Pid pid, std::function<void()> exited) override { log_->watched[pid] = std::move(exited); }

private:
    std::shared_ptr<Log> log_;
};

}  // namespace tavra::testing
