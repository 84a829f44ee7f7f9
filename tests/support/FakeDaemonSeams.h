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
    void reply(std::string bytes) override { replies.push_back(std::move(bytes)); }
    void onClosed(std::function<void()> closed) override { closed_ = std::move(closed); }

    // The peer hangs up.
    void hangUp() {
        if (closed_) closed_();
    }
    // The one reply, decoded; absent while none came.
    std::optional<DaemonResponse> response() const {
        if (replies.empty()) return std::nullopt;
        return TavraJSON::decode<DaemonResponse>(replies.back());
    }

    std::vector<std::string> replies;

private:
    std::function<void()> closed_;
};

class FakeDirectoryWatcher final : public DirectoryWatcher {
public:
    struct Log {
        std::vector<std::set<std::string>> syncs;
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
        std::vector<Pid> watched;
        std::map<Pid, std::function<void()>> callbacks;
        void exit(Pid pid) {
            auto callback = callbacks.at(pid);
            callbacks.erase(pid);
            callback();
        }
    };
    explicit FakeExitWatcher(std::shared_ptr<Log> log) : log_(std::move(log)) {}
    void watch(Pid pid, std::function<void()> exited) override {
        log_->watched.push_back(pid);
        log_->callbacks[pid] = std::move(exited);
    }

private:
    std::shared_ptr<Log> log_;
};

}  // namespace tavra::testing
