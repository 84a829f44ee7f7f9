#pragma once

// Tells the owner when a process ends, without polling and without being its
// parent.

#include <cstddef>
#include <functional>
#include <memory>

#include "platform/Processes.h"

namespace asio {
class io_context;
}

namespace tavra {

// Context: handlers run on the io_context given at construction; watch,
// unwatch and destruction belong to the thread that runs it (or to any thread
// while it does not run). No lock. Nothing throws out of the watcher, and an
// exception thrown by a handler is swallowed. After destruction, or after
// unwatch(pid), that pid's handler never runs. The context must outlive the
// watcher.
class ProcessExitWatcher {
public:
    using Handler = std::function<void(Pid pid)>;

    explicit ProcessExitWatcher(asio::io_context& context);
    ~ProcessExitWatcher();
    ProcessExitWatcher(const ProcessExitWatcher&) = delete;
    ProcessExitWatcher& operator=(const ProcessExitWatcher&) = delete;

    // Calls `handler` once, on the context, when `pid` ends (a zombie has
    // ended); then the pid is no longer watched. A pid that is already gone,
    // or not a valid process ID, is reported at once, posted rather than
    // called from within watch(). Watching a pid again replaces its handler.
    // Where the OS cannot watch the pid (out of descriptors, say), it is
    // checked once a second instead.
    void watch(Pid pid, Handler handler);
    void unwatch(Pid pid);
    std::size_t watching() const noexcept;

    struct Impl;  // internal

private:
    std::shared_ptr<Impl> impl_;
};

}  // namespace tavra
