#pragma once

// The one OS-specific part of ProcessExitWatcher: learning that a process
// ended. Internal to TavraPlatform; each backend folder defines makeExitSource.

#include <functional>
#include <memory>

#include "platform/Processes.h"

namespace asio {
class io_context;
}

namespace tavra {

class ExitSource {
public:
    // Called on the context, once per added pid that ends, never after the
    // source is destroyed or after remove(pid).
    using Exited = std::function<void(Pid pid)>;

    virtual ~ExitSource() = default;
    // 0 once `pid` is watched, otherwise the errno value of the failure
    // (ESRCH: the process is already gone). Adding a pid twice replaces the
    // first watch.
    virtual int add(Pid pid) noexcept = 0;
    virtual void remove(Pid pid) noexcept = 0;
};

std::unique_ptr<ExitSource> makeExitSource(asio::io_context& context, ExitSource::Exited exited);

}  // namespace tavra
