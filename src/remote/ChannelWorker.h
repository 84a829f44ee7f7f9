#pragma once

// What both channels share: a queue of deliveries served in order by one
// thread, a second thread that listens to the service, waits that end at
// once on stop, and a back-off that doubles to a cap.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>

namespace tavra {

// Waits up to `seconds`; false if a stop was requested meanwhile.
bool sleepUnlessStopped(std::stop_token stop, double seconds);

// 1 s, 2 s, 4 s ... up to `cap`; reset() after a success.
class Backoff {
public:
    explicit Backoff(double cap, double first = 1.0) : first_(first), cap_(cap) {}
    double next() noexcept;
    void reset() noexcept { current_ = 0; }

private:
    double first_;
    double cap_;
    double current_ = 0;
};

// The two threads of a channel: `listen` runs once on its own thread until a
// stop (it loops itself), and jobs pushed by the daemon run one after the
// other on the sender thread. Thread-safe.
class ChannelWorker {
public:
    using Job = std::function<void(std::stop_token)>;

    // At most `capacity` jobs wait; beyond that the oldest is dropped and
    // `dropped` is told, so a long network loss cannot grow memory forever.
    ChannelWorker(std::size_t capacity, std::function<void()> dropped);
    ~ChannelWorker();
    ChannelWorker(const ChannelWorker&) = delete;
    ChannelWorker& operator=(const ChannelWorker&) = delete;

    // Starts both threads unless they run already.
    void start(std::function<void(std::stop_token)> listen);
    bool running() const noexcept { return sender_.joinable(); }
    // Ends both threads: pending exchanges are cancelled, queued jobs dropped.
    void stop();
    void push(Job job);
    // Waits until no job is queued or running; false after `seconds`.
    bool flush(double seconds);

private:
    void serve(std::stop_token stop);

    std::size_t capacity_;
    std::function<void()> dropped_;
    std::mutex mutex_;
    std::condition_variable_any changed_;
    std::deque<Job> jobs_;
    bool busy_ = false;
    std::jthread sender_;
    std::jthread listener_;
};

// `bytes` random bytes from the system's generator, as lower-case base32
// (RFC 4648 alphabet without padding): 8 characters per 5 bytes.
std::string randomBase32(std::size_t bytes);

// The host name up to its first dot ("studio" for "studio.local").
std::string shortHostName();

}  // namespace tavra
