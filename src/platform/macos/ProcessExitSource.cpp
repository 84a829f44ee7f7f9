// Process exits on macOS: one kqueue with an EVFILT_PROC NOTE_EXIT filter per
// process; the kqueue itself is readable while events wait, so the owner's
// context waits on it.

#include <sys/event.h>
#include <unistd.h>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <cerrno>
#include <set>

#include "platform/ProcessExitSource.h"

namespace tavra {

namespace {

class KqueueSource final : public ExitSource {
public:
    KqueueSource(asio::io_context& context, Exited exited)
        : state_(std::make_shared<State>(context, std::move(exited))) {}
    ~KqueueSource() override {
        state_->stopped = true;
        std::error_code ignored;
        state_->queue.close(ignored);
    }

    int add(Pid pid) noexcept override {
        if (!state_->queue.is_open()) return EBADF;
        struct kevent change {};
        EV_SET(&change, static_cast<uintptr_t>(pid), EVFILT_PROC, EV_ADD | EV_ONESHOT, NOTE_EXIT, 0, nullptr);
        if (::kevent(state_->queue.native_handle(), &change, 1, nullptr, 0, nullptr) != 0) return errno;
        try {
            state_->pids.insert(pid);
            wait(state_);
        } catch (...) {
            remove(pid);
            return ENOMEM;
        }
        return 0;
    }

    void remove(Pid pid) noexcept override {
        if (state_->pids.erase(pid) == 0) return;
        struct kevent change {};
        EV_SET(&change, static_cast<uintptr_t>(pid), EVFILT_PROC, EV_DELETE, 0, 0, nullptr);
        ::kevent(state_->queue.native_handle(), &change, 1, nullptr, 0, nullptr);
    }

private:
    struct State {
        State(asio::io_context& context, Exited exited_) : queue(context), exited(std::move(exited_)) {
            int fd = ::kqueue();
            std::error_code error;
            if (fd >= 0) queue.assign(fd, error);
            if (fd >= 0 && error) ::close(fd);
        }
        asio::posix::stream_descriptor queue;
        Exited exited;
        std::set<Pid> pids;
        bool waiting = false;
        bool stopped = false;
    };

    static void wait(const std::shared_ptr<State>& state) {
        if (state->waiting) return;
        state->waiting = true;
        state->queue.async_wait(
            asio::posix::stream_descriptor::wait_read, [state](const std::error_code& error) {
                state->waiting = false;
                if (error || state->stopped) return;
                struct kevent events[32];
                timespec immediately{};
                int count = ::kevent(state->queue.native_handle(), nullptr, 0, events, 32, &immediately);
                for (int i = 0; i < count && !state->stopped; ++i) {
                    auto pid = static_cast<Pid>(events[i].ident);
                    if ((events[i].fflags & NOTE_EXIT) != 0 && state->pids.erase(pid) != 0)
                        state->exited(pid);
                }
                if (!state->stopped && !state->pids.empty()) wait(state);
            });
    }

    std::shared_ptr<State> state_;
};

}  // namespace

std::unique_ptr<ExitSource> makeExitSource(asio::io_context& context, ExitSource::Exited exited) {
    return std::make_unique<KqueueSource>(context, std::move(exited));
}

}  // namespace tavra
