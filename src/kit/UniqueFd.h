#pragma once

#include <unistd.h>

#include <utility>

namespace tavra {

// Owns one file descriptor and closes it exactly once. Move-only.
// Not thread-safe: one owner at a time.
class UniqueFd {
public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}
    ~UniqueFd() { reset(); }

    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }

    int get() const noexcept { return fd_; }
    bool valid() const noexcept { return fd_ >= 0; }
    explicit operator bool() const noexcept { return valid(); }

    // Gives up ownership without closing.
    int release() noexcept { return std::exchange(fd_, -1); }

    // Closes the held descriptor (if any) and takes `fd`. EINTR from close is
    // not retried: on Linux the descriptor is gone either way.
    void reset(int fd = -1) noexcept {
        int old = std::exchange(fd_, fd);
        if (old >= 0) ::close(old);
    }

private:
    int fd_ = -1;
};

}  // namespace tavra
