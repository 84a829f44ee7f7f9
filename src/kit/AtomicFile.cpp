#include "kit/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "kit/UniqueFd.h"

namespace tavra {

namespace {

[[noreturn]] void fail(const std::filesystem::path& path, int error) {
    throw FileError(path, std::strerror(error));
}

// The temporary file: removed again unless it was renamed into place.
class PendingFile {
public:
    PendingFile(UniqueFd fd, std::string path) : fd_(std::move(fd)), path_(std::move(path)) {}
    ~PendingFile() {
        if (!path_.empty()) ::unlink(path_.c_str());
    }
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    int fd() const { return fd_.get(); }
    const std::string& path() const { return path_; }
    // close(2) can report a failed write-back, so its result matters here.
    int close() { return ::close(fd_.release()); }
    void keep() { path_.clear(); }

private:
    UniqueFd fd_;
    std::string path_;
};

}  // namespace

std::optional<std::string> readWholeFile(const std::filesystem::path& path) noexcept {
    try {
        // Non-blocking open, then only regular files: a FIFO or a device put
        // where a settings file belongs must not hang or flood the reader.
        UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        if (!fd) return std::nullopt;
        struct stat info {};
        if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
        std::string content;
        char buffer[8192];
        for (;;) {
            ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return std::nullopt;
            if (n == 0) break;
            content.append(buffer, static_cast<std::size_t>(n));
        }
        return content;
    } catch (...) {
        return std::nullopt;
    }
}

void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes, mode_t mode) {
    std::string pattern = path.string() + ".XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    UniqueFd fd(::mkostemp(name.data(), O_CLOEXEC));
    if (!fd) fail(path, errno);
    PendingFile temp(std::move(fd), name.data());

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
    if (UniqueFd dirFd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)); dirFd) ::fsync(dirFd.get());
}

}  // namespace tavra
