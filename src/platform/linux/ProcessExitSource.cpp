// Process exits on Linux: one pidfd per process, readable once it has ended,
// waited on by the owner's context.

#include <sys/syscall.h>
#include <unistd.h>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <cerrno>
#include <map>

#include "platform/ProcessExitSource.h"

namespace tavra {

namespace {

class PidfdSource final : public ExitSource {
public:
    PidfdSource(asio::io_context& context, Exited exited)
        : state_(std::make_shared<State>(State{context, std::move(exited), {}, 0, false})) {}
    ~PidfdSource() override {
        state_->stopped = true;
        state_->watches.clear();  // closes every pidfd and cancels its wait
    }

    int add(Pid pid) noexcept override {
        // pidfd_open has no C library wrapper on every system we build on.
        int fd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));  // close-on-exec by default
        if (fd < 0) return errno;
        try {
            auto& watch = state_->watches[pid];
            watch.descriptor = std::make_unique<asio::posix::stream_descriptor>(state_->context, fd);
            watch.generation = ++state_->generations;
            watch.descriptor->async_wait(
                asio::posix::stream_descriptor::wait_read,
                [state = state_, pid, generation = watch.generation](const std::error_code& error) {
                    if (error || state->stopped) return;
                    auto found = state->watches.find(pid);
                    if (found == state->watches.end() || found->second.generation != generation) return;
                    state->watches.erase(found);
                    state->exited(pid);
                });
            return 0;
        } catch (...) {
            remove(pid);
            return ENOMEM;
        }
    }

    void remove(Pid pid) noexcept override { state_->watches.erase(pid); }

private:
    struct Watch {
        std::unique_ptr<asio::posix::stream_descriptor> descriptor;
        std::uint64_t generation = 0;
    };
    struct State {
        asio::io_context& context;
        Exited exited;
        std::map<Pid, Watch> watches;
        std::uint64_t generations;
        bool stopped;
    };
    std::shared_ptr<State> state_;
};

}  // namespace

std::unique_ptr<ExitSource> makeExitSource(asio::io_context& context, ExitSource::Exited exited) {
    return std::make_unique<PidfdSource>(context, std::move(exited));
}

}  // namespace tavra
