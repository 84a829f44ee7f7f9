#include "platform/ProcessExitWatcher.h"

#include <signal.h>

#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <cerrno>
#include <cstdint>
#include <map>
#include <vector>

#include "platform/ProcessExitSource.h"

namespace tavra {

namespace {
// How often a process that the OS would not let us watch is looked at.
constexpr auto kPollInterval = std::chrono::seconds(1);
}  // namespace

struct ProcessExitWatcher::Impl : std::enable_shared_from_this<Impl> {
    struct Entry {
        Handler handler;
        std::uint64_t generation = 0;  // tells a report for an earlier watch of the same pid apart
        bool polled = false;
    };

    explicit Impl(asio::io_context& context_) : context(context_), pollTimer(context_) {}

    asio::io_context& context;
    std::unique_ptr<ExitSource> source;
    std::map<Pid, Entry> entries;
    std::uint64_t generations = 0;
    asio::steady_timer pollTimer;
    bool polling = false;

    void watch(Pid pid, Handler handler);
    void unwatch(Pid pid);
    void finish(Pid pid, std::uint64_t generation);
    void poll();
};

void ProcessExitWatcher::Impl::watch(Pid pid, Handler handler) {
    unwatch(pid);
    auto& entry = entries[pid];
    entry.handler = std::move(handler);
    entry.generation = ++generations;
    // kill() and the OS calls give 0 and negative IDs meanings of their own
    // (groups, everyone); no process has them.
    int error = pid > 0 ? source->add(pid) : ESRCH;
    if (error == 0) return;
    if (error == ESRCH) {
        asio::post(context, [weak = weak_from_this(), pid, generation = entry.generation] {
            if (auto self = weak.lock()) self->finish(pid, generation);
        });
        return;
    }
    entry.polled = true;
    if (!polling) poll();
}

void ProcessExitWatcher::Impl::unwatch(Pid pid) {
    auto found = entries.find(pid);
    if (found == entries.end()) return;
    if (!found->second.polled) source->remove(pid);
    entries.erase(found);
}

void ProcessExitWatcher::Impl::finish(Pid pid, std::uint64_t generation) {
    auto found = entries.find(pid);
    if (found == entries.end() || found->second.generation != generation) return;
    auto handler = std::move(found->second.handler);
    if (!found->second.polled) source->remove(pid);
    entries.erase(found);
    if (!handler) return;
    try {
        handler(pid);
    } catch (...) {
    }
}

void ProcessExitWatcher::Impl::poll() {
    polling = true;
    pollTimer.expires_after(kPollInterval);
    pollTimer.async_wait([weak = weak_from_this()](const std::error_code& error) {
        auto self = weak.lock();
        if (error || !self) return;
        std::vector<std::pair<Pid, std::uint64_t>> gone;
        bool remaining = false;
        for (const auto& [pid, entry] : self->entries) {
            if (!entry.polled) continue;
            if (::kill(pid, 0) != 0 && errno == ESRCH)
                gone.emplace_back(pid, entry.generation);
            else
                remaining = true;
        }
        self->polling = false;
        if (remaining) self->poll();
        for (const auto& [pid, generation] : gone) self->finish(pid, generation);
    });
}

ProcessExitWatcher::ProcessExitWatcher(asio::io_context& context) : impl_(std::make_shared<Impl>(context)) {
    impl_->source = makeExitSource(context, [impl = impl_.get()](Pid pid) {
        auto found = impl->entries.find(pid);
        if (found != impl->entries.end()) impl->finish(pid, found->second.generation);
    });
}

ProcessExitWatcher::~ProcessExitWatcher() {
    impl_->source.reset();  // no more reports from the OS
    impl_->entries.clear();
}

void ProcessExitWatcher::watch(Pid pid, Handler handler) {
    try {
        impl_->watch(pid, std::move(handler));
    } catch (...) {  // only memory can run out here; the pid stays unwatched
        impl_->entries.erase(pid);
    }
}

void ProcessExitWatcher::unwatch(Pid pid) {
    impl_->unwatch(pid);
}

std::size_t ProcessExitWatcher::watching() const noexcept {
    return impl_->entries.size();
}

}  // namespace tavra
