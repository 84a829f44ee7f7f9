#include "kit/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace tavra {

namespace {

[[noreturn]] void fail(const std::filesystem::path& path, int error) {
    throw FileError("cannot write " + path.string() + ": " + std::strerror(error));
}

// Closes the descriptor and removes the temporary file unless released.
class PendingFile {
public:
    PendingFile(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
    ~PendingFile() {
        if (fd_ >= 0) ::close(fd_);
        if (!path_.empty()) ::unlink(path_.c_str());
    }
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    int fd() const { return fd_; }
    const std::string& path() const { return path_; }
    int close() {
        int result = ::close(fd_);
        fd_ = -1;
        return result;
    }
    void keep() { path_.clear(); }

private:
    int fd_;
    std::string path_;
};

}  // namespace

std::optional<std::string> readWholeFile(const std::filesystem::path& path) noexcept {
    try {
        // Non-blocking open, then only regular files: a FIFO or a device put
        // where a settings file belongs must not hang or flood the reader.
        int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        if (fd < 0) return std::nullopt;
        struct stat info {};
        if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
            ::close(fd);
            return std::nullopt;
        }
        std::string content;
        char buffer[8192];
        for (;;) {
            ssize_t n = ::read(fd, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                ::close(fd);
                return std::nullopt;
            }
            if (n == 0) break;
            content.append(buffer, static_cast<std::size_t>(n));
        }
        ::close(fd);
        return content;
    } catch (...) {
        return std::nullopt;
    }
}

void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes, mode_t mode) {
    std::string pattern = path.string() + ".XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    int fd = ::mkostemp(name.data(), O_CLOEXEC);
    if (fd < 0) fail(path, errno);
    PendingFile temp(fd, name.data());

    // The mode is set before any byte is written, so a secret such as a bot
    // token is never readable by others, not even for a moment.
    if (::fchmod(temp.fd(), mode) != 0) fail(path, errno);
    const char* data = bytes.data();
    std::size_t left = bytes.size();
    while (left > 0) {
        ssize_t n = ::write(temp.fd(), data, left);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) fail(path, errno);
        data += n;
        left -= static_cast<std::size_t>(n);
    }
    if (::fsync(temp.fd()) != 0) fail(path, errno);
    if (temp.close() != 0) fail(path, errno);
    if (::rename(temp.path().c_str(), path.c_str()) != 0) fail(path, errno);
    temp.keep();

    // Make the rename itself durable; a failure here loses nothing already
    // visible, so it is not reported.
    std::filesystem::path dir = path.parent_path();
    if (dir.empty()) dir = ".";
    int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0) {
        ::fsync(dirFd);
        ::close(dirFd);
    }
}

}  // namespace tavra
