#include "kit/UnixSocket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <optional>
#include <vector>

#include "kit/Pipe.h"
#include "kit/SocketSystem.h"

namespace tavra {

namespace {

std::string describe(const SocketError::Case& value) {
    struct Describe {
        std::string operator()(const SocketError::PathTooLong& c) const {
            return "socket path too long: " + c.path;
        }
        std::string operator()(const SocketError::System& c) const {
            return c.operation + " failed: " + std::strerror(c.code);
        }
        std::string operator()(const SocketError::Closed&) const {
            return "connection closed before a reply";
        }
    };
    return std::visit(Describe{}, value);
}

// A silent peer holds its I/O thread for the whole read time-out, and the
// helper's socket is open to every local user. With a handful of threads a
// few idle connections would starve the one client that must get through
// within its own short time-out; this many makes that a real effort.
constexpr std::size_t kIoThreads = 64;

enum class AddressCall { bind, connect };

// Fills a zeroed sockaddr_un and binds or connects with the length of the
// whole structure. The path limit is the same on every platform so that a
// path that works here also works on the smallest sockaddr_un.
void withSockaddr(int fd, const std::string& path, AddressCall call) {
    if (path.size() > UnixSocketLimits::kLongestPath) throw SocketError::pathTooLong(path);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    if (call == AddressCall::bind) {
        if (::bind(fd, generic, sizeof address) != 0) throw SocketError::system("bind", errno);
    } else {
        if (::connect(fd, generic, sizeof address) != 0) throw SocketError::system("connect", errno);
    }
}

// Binds to `path` so that the socket file has exactly `mode` from the moment
// it exists: bind creates the file with the umask applied, so the umask is
// narrowed to the complement of `mode` around bind, and the mode is then set
// again explicitly (and checked) in case the file system ignores the umask
// for sockets. A failure removes the file and throws.
void bindWithMode(int fd, const std::string& path, std::uint16_t mode) {
    const mode_t previous = ::umask(static_cast<mode_t>(~mode & 0777));
    try {
        withSockaddr(fd, path, AddressCall::bind);
    } catch (...) {
        ::umask(previous);
        throw;
    }
    ::umask(previous);
    if (::chmod(path.c_str(), mode) != 0) {
        const int error = errno;
        ::unlink(path.c_str());
        throw SocketError::system("chmod", error);
    }
}

// Receive and send time-outs of one descriptor; failures are ignored.
void setTimeout(int fd, double seconds) {
    timeval value{};
    double whole = std::floor(seconds);
    value.tv_sec = static_cast<decltype(value.tv_sec)>(whole);
    value.tv_usec = static_cast<decltype(value.tv_usec)>((seconds - whole) * 1000000.0);
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &value, sizeof value);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &value, sizeof value);
}

// Whether every byte went out. An interrupted or timed-out write fails.
bool writeAll(int fd, std::string_view data) {
    while (!data.empty()) {
        ssize_t written = SocketSystem::sendSome(fd, data.data(), data.size());
        if (written < 1) return false;
        data.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

// One line without its newline, or nothing when the peer sent no byte at all
// or kept writing past the line limit. A line cut off by end of file or a
// time-out is delivered as it stands; bytes behind the first newline are
// dropped, since a connection carries one request.
std::optional<std::string> readLine(int fd) {
    std::string line;
    std::vector<char> buffer(UnixSocketLimits::kReadChunk);
    for (;;) {
        if (line.size() >= UnixSocketLimits::kLineLimit) return std::nullopt;
        ssize_t count = ::read(fd, buffer.data(), buffer.size());
        if (count < 1) {
            if (line.empty()) return std::nullopt;
            return line;
        }
        auto chunk = std::string_view(buffer.data(), static_cast<std::size_t>(count));
        auto newline = chunk.find('\n');
        if (newline != std::string_view::npos) {
            line.append(chunk.substr(0, newline));
            return line;
        }
        line.append(chunk);
    }
}

// Serves one accepted connection on an I/O thread. Holds the descriptor and
// the handler, never the server.
void serve(UniqueFd connection, std::shared_ptr<const UnixSocketServer::Handler> handler,
           double timeoutSeconds) {
    SocketSystem::nameThread("tavra.socket.io");
    setTimeout(connection.get(), timeoutSeconds);
    auto uid = SocketSystem::peerUid(connection.get());
    if (!uid) return;
    auto line = readLine(connection.get());
    if (!line) return;
    auto shared = std::make_shared<UniqueFd>(std::move(connection));
    UnixSocketServer::Reply reply = [shared](std::string bytes) {
        if (!shared->valid()) return;  // a second call has nothing left to write to
        bytes.push_back('\n');
        writeAll(shared->get(), bytes);
        shared->reset();
    };
    (*handler)(std::move(*line), *uid, std::move(reply));
}

}  // namespace

SocketError::SocketError(Case value) : Error(describe(value)), value_(std::move(value)) {}

SocketError SocketError::pathTooLong(std::string path) {
    return SocketError(PathTooLong{std::move(path)});
}

SocketError SocketError::system(std::string operation, int code) {
    return SocketError(System{std::move(operation), static_cast<std::int32_t>(code)});
}

SocketError SocketError::closed() {
    return SocketError(Closed{});
}

UnixSocketServer::UnixSocketServer(std::string path, std::uint16_t mode, Handler handler,
                                   double ioTimeoutSeconds)
    : path_(std::move(path)),
      mode_(mode),
      handler_(std::make_shared<const Handler>(std::move(handler))),
      ioTimeoutSeconds_(ioTimeoutSeconds),
      ioQueue_(std::make_unique<asio::thread_pool>(kIoThreads)) {}

UnixSocketServer::~UnixSocketServer() {
    stop();
    ioQueue_->join();
}

void UnixSocketServer::start() {
    stop();  // a second start replaces the first listener
    ::unlink(path_.c_str());
    UniqueFd fd = SocketSystem::openStreamSocket();
    if (!fd) throw SocketError::system("socket", errno);
    bindWithMode(fd.get(), path_, mode_);
    if (::listen(fd.get(), UnixSocketLimits::kBacklog) != 0) throw SocketError::system("listen", errno);
    Pipe wake;
    if (const int error = openPipe(wake); error != 0) throw SocketError::system("socket", error);
    wakeRead_ = std::move(wake.read);
    wakeWrite_ = std::move(wake.write);
    fd_ = std::move(fd);

    // The thread works on copies of the descriptors; stop() wakes it through
    // the pipe and joins it before either is closed, so a number is never
    // reused under its feet. Neither shutting down nor closing a listening
    // socket reliably wakes a blocked accept() on every platform, so the
    // thread waits in poll() and accepts only what is ready.
    acceptThread_ = std::thread([listenFd = fd_.get(), wakeFd = wakeRead_.get(), handler = handler_,
                                 pool = ioQueue_.get(), timeout = ioTimeoutSeconds_] {
        SocketSystem::nameThread("tavra.socket.accept");
        for (;;) {
            pollfd waits[2] = {{listenFd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
            if (::poll(waits, 2, -1) < 0) {
                if (errno == EINTR) continue;
                return;
            }
            if (waits[1].revents != 0) return;  // stop()
            if ((waits[0].revents & POLLIN) == 0) {
                if (waits[0].revents != 0) return;  // the listening socket failed
                continue;
            }
            UniqueFd accepted = SocketSystem::acceptConnection(listenFd);
            if (!accepted) {
                if (errno == EINTR || errno == ECONNABORTED) continue;
                return;  // a failure that ends the intake silently
            }
            asio::post(*pool, [connection = std::make_shared<UniqueFd>(std::move(accepted)), handler,
                               timeout] { serve(std::move(*connection), handler, timeout); });
        }
    });
}

void UnixSocketServer::stop() {
    if (!fd_.valid()) return;
    char byte = 0;
    while (::write(wakeWrite_.get(), &byte, 1) < 0 && errno == EINTR) {
    }
    if (acceptThread_.joinable()) acceptThread_.join();
    fd_.reset();
    wakeRead_.reset();
    wakeWrite_.reset();
    ::unlink(path_.c_str());
}

namespace UnixSocketClient {

std::string send(std::string_view data, const std::string& path, double timeoutSeconds) {
    UniqueFd fd = SocketSystem::openStreamSocket();
    if (!fd) throw SocketError::system("socket", errno);
    setTimeout(fd.get(), timeoutSeconds);
    withSockaddr(fd.get(), path, AddressCall::connect);
    std::string message(data);
    message.push_back('\n');
    if (!writeAll(fd.get(), message)) throw SocketError::system("write", errno);
    auto line = readLine(fd.get());
    if (!line) throw SocketError::closed();
    return std::move(*line);
}

}  // namespace UnixSocketClient

}  // namespace tavra
