#include "remote/ChannelWorker.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <vector>

namespace tavra {

bool sleepUnlessStopped(std::stop_token stop, double seconds) {
    std::mutex mutex;
    std::condition_variable_any never;
    std::unique_lock lock(mutex);
    never.wait_for(lock, stop, std::chrono::duration<double>(seconds), [] { return false; });
    return !stop.stop_requested();
}

double Backoff::next() noexcept {
    current_ = std::min(cap_, current_ == 0 ? first_ : current_ * 2);
    return current_;
}

ChannelWorker::ChannelWorker(std::size_t capacity, std::function<void()> dropped)
    : capacity_(capacity), dropped_(std::move(dropped)) {}

ChannelWorker::~ChannelWorker() {
    stop();
}

void ChannelWorker::start(std::function<void(std::stop_token)> listen) {
    if (sender_.joinable()) return;
    sender_ = std::jthread([this](std::stop_token stop) { serve(stop); });
    listener_ = std::jthread([listen = std::move(listen)](std::stop_token stop) {
        // Listening must outlive any surprise in what the service sends.
        while (!stop.stop_requested()) {
            try {
                listen(stop);
            } catch (...) {
                sleepUnlessStopped(stop, 5.0);
            }
        }
    });
}

void ChannelWorker::stop() {
    sender_.request_stop();
    listener_.request_stop();
    if (sender_.joinable()) sender_.join();
    if (listener_.joinable()) listener_.join();
    std::lock_guard lock(mutex_);
    jobs_.clear();
    changed_.notify_all();
}

void ChannelWorker::push(Job job) {
    bool overflow = false;
    {
        std::lock_guard lock(mutex_);
        jobs_.push_back(std::move(job));
        if (jobs_.size() > capacity_) {
            jobs_.pop_front();
            overflow = true;
        }
    }
    changed_.notify_all();
    if (overflow && dropped_) dropped_();
}

bool ChannelWorker::flush(double seconds) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::duration<double>(seconds),
                             [this] { return jobs_.empty() && !busy_; });
}

void ChannelWorker::serve(std::stop_token stop) {
    std::unique_lock lock(mutex_);
    while (true) {
        changed_.wait(lock, stop, [this] { return !jobs_.empty(); });
        if (stop.stop_requested()) break;
        Job job = std::move(jobs_.front());
        jobs_.pop_front();
        busy_ = true;
        lock.unlock();
        try {
            job(stop);
        } catch (...) {  // one delivery's failure must not end the others
        }
        lock.lock();
        busy_ = false;
        changed_.notify_all();
    }
    busy_ = false;
    changed_.notify_all();
}

std::string randomBase32(std::size_t bytes) {
    // The standard device reads the kernel's generator (getrandom, /dev/urandom, arc4random).
    std::random_device device;
    std::vector<unsigned char> raw(bytes);
    for (auto& byte : raw) byte = static_cast<unsigned char>(device() & 0xffu);
    static constexpr char alphabet[] = "abcdefghijklmnopqrstuvwxyz234567";
    std::string out;
    unsigned buffer = 0;
    int bits = 0;
    for (unsigned char byte : raw) {
        buffer = ((buffer << 8) | byte) & 0xfffu;
        bits += 8;
        while (bits >= 5) {
            out.push_back(alphabet[(buffer >> (bits - 5)) & 31u]);
            bits -= 5;
        }
    }
    if (bits > 0) out.push_back(alphabet[(buffer << (5 - bits)) & 31u]);
    return out;
}

std::string shortHostName() {
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0 || !name[0]) return "this machine";
    std::string host(name);
    return host.substr(0, host.find('.'));
}

}  // namespace tavra
