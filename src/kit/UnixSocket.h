#pragma once

// The transport of both local protocols: a Unix-domain stream socket that
// carries one request line and one reply line per connection. Payloads are
// opaque bytes without a newline; the transport adds and strips the newline.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <variant>

#include "core/Error.h"
#include "kit/UniqueFd.h"

namespace asio {
class thread_pool;
}

namespace tavra {

// Thrown by the transport. description():
//   pathTooLong: "socket path too long: {path}"
//   system:      "{operation} failed: {strerror text}"
//   closed:      "connection closed before a reply"
class SocketError : public Error {
public:
    struct PathTooLong {
        std::string path;
        bool operator==(const PathTooLong&) const = default;
    };
    struct System {
        std::string operation;  // "socket", "bind", "connect", "listen", "write"
        std::int32_t code;      // errno
        bool operator==(const System&) const = default;
    };
    struct Closed {
        bool operator==(const Closed&) const = default;
    };
    using Case = std::variant<PathTooLong, System, Closed>;

    static SocketError pathTooLong(std::string path);
    static SocketError system(std::string operation, int code);
    static SocketError closed();

    const Case& value() const noexcept { return value_; }

private:
    explicit SocketError(Case value);
    Case value_;
};

namespace UnixSocketLimits {
inline constexpr std::size_t kLongestPath =
    103;  // bytes of UTF-8; sockaddr_un of Darwin minus the terminator
inline constexpr std::size_t kReadChunk = 65536;
inline constexpr std::size_t kLineLimit = 4194304;  // an unfinished line this long is given up
inline constexpr int kBacklog = 64;
inline constexpr double kServerTimeout = 10.0;  // seconds, per read and per write of a connection
}  // namespace UnixSocketLimits

// Listens on a path and hands each request line with the peer's user ID to
// the handler.
//
// Threads: one accept thread ("tavra.socket.accept") and a pool of I/O
// threads ("tavra.socket.io") on which connections are read in parallel and
// the handler is called, possibly on several threads at once; the handler
// must hop to its owner's own context. `reply` may be called at once or later
// from any thread, and exactly once: it writes the bytes plus a newline and
// closes the connection. A reply that is dropped uncalled closes the
// connection without an answer.
//
// start() and stop() belong to the owner's thread. Destruction stops the
// server and waits for the I/O threads to finish what they are reading; do
// not destroy the server on one of its own I/O threads.
class UnixSocketServer {
public:
    using Reply = std::function<void(std::string bytes)>;
    using Handler = std::function<void(std::string line, std::uint32_t peerUid, Reply reply)>;

    // Stores the arguments; touches nothing on the file system.
    // `ioTimeoutSeconds` bounds each read and write of an accepted connection.
    UnixSocketServer(std::string path, std::uint16_t mode, Handler handler,
                     double ioTimeoutSeconds = UnixSocketLimits::kServerTimeout);
    ~UnixSocketServer();
    UnixSocketServer(const UnixSocketServer&) = delete;
    UnixSocketServer& operator=(const UnixSocketServer&) = delete;

    // Unlinks whatever stands at the path, binds with the mode already in
    // force (the process's umask is narrowed for the moment of bind, so call
    // it before other threads create files), checks the mode, listens and
    // starts the accept thread. Throws SocketError, leaving no socket file
    // behind. Returns once listening.
    void start();

    // Closes the listening socket, ends the accept thread and unlinks the
    // path. Connections already accepted are still served. Idempotent.
    void stop();

    const std::string& path() const noexcept { return path_; }
    std::uint16_t mode() const noexcept { return mode_; }
    bool listening() const noexcept { return fd_.valid(); }

private:
    std::string path_;
    std::uint16_t mode_;
    std::shared_ptr<const Handler> handler_;
    double ioTimeoutSeconds_;
    UniqueFd fd_;
    UniqueFd wakeRead_, wakeWrite_;  // stop() writes a byte to end the accept thread
    std::thread acceptThread_;
    std::unique_ptr<asio::thread_pool> ioQueue_;
};

// The one-shot client side.
namespace UnixSocketClient {

// Connects, writes `data` plus a newline, and returns the reply line without
// its newline. `timeoutSeconds` bounds the connect, each write and each read.
// Throws SocketError (closed when nothing at all came back). Blocks; safe
// from any thread.
std::string send(std::string_view data, const std::string& path, double timeoutSeconds);

}  // namespace UnixSocketClient

}  // namespace tavra
