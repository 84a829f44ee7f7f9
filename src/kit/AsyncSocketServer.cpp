#include "kit/AsyncSocketServer.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <asio/dispatch.hpp>
#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/post.hpp>
#include <asio/read_until.hpp>
#include <asio/steady_timer.hpp>
#include <asio/write.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <unordered_set>
#include <vector>

#include "kit/SocketSystem.h"

namespace tavra {

namespace {

using Socket = asio::local::stream_protocol::socket;
using Acceptor = asio::local::stream_protocol::acceptor;

// A burst of a thousand hooks connecting at once must not meet a full queue;
// the kernel caps this at its own maximum anyway.
constexpr int kBacklog = std::max(SOMAXCONN, 1024);
// Connections taken per wake-up of the listener, so that a flood of connects
// cannot keep the context from the connections already open.
constexpr int kAcceptsPerWake = 64;
// Pause before listening again after a failed accept (out of descriptors or
// memory), so that the failure is not retried in a tight loop.
constexpr auto kAcceptRetry = std::chrono::milliseconds(100);
// Bytes read and dropped at a time while a held connection is watched.
constexpr std::size_t kWatchChunk = 512;

std::chrono::steady_clock::duration toDuration(double seconds) {
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(std::max(seconds, 0.0)));
}

void bindAt(int fd, const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw SocketError::system("bind", errno);
}

// Binds `fd` at `path` so that the socket file never carries more than `mode`:
// it is made and narrowed inside a fresh 0700 directory beside the target,
// where nobody else can reach it, and then renamed over whatever stood at the
// path. Where that scratch path would not fit in an address, the bind happens
// in place under a umask that leaves only `mode`; the umask is the process's,
// which is why this is only the fallback.
void bindPrivately(int fd, const std::string& path, std::uint16_t mode) {
    if (path.size() > UnixSocketLimits::kLongestPath) throw SocketError::pathTooLong(path);
    auto parent = std::filesystem::path(path).parent_path().string();
    std::string scratchDir = (parent.empty() ? std::string(".") : parent) + "/.tavra-XXXXXX";
    if (scratchDir.size() + 2 > UnixSocketLimits::kLongestPath) {
        ::unlink(path.c_str());
        mode_t previous = ::umask(static_cast<mode_t>(~mode & 0777));
        try {
            bindAt(fd, path);
        } catch (...) {
            ::umask(previous);
            throw;
        }
        ::umask(previous);
        if (::chmod(path.c_str(), mode) != 0) throw SocketError::system("chmod", errno);
        return;
    }
    if (::mkdtemp(scratchDir.data()) == nullptr) throw SocketError::system("bind", errno);
    std::string scratch = scratchDir + "/s";
    struct Cleanup {
        const std::string& file;
        const std::string& dir;
        ~Cleanup() {
            ::unlink(file.c_str());
            ::rmdir(dir.c_str());
        }
    } cleanup{scratch, scratchDir};
    bindAt(fd, scratch);
    if (::chmod(scratch.c_str(), mode) != 0) throw SocketError::system("chmod", errno);
    if (::rename(scratch.c_str(), path.c_str()) != 0) throw SocketError::system("bind", errno);
}

}  // namespace

struct AsyncSocketServer::State : std::enable_shared_from_this<State> {
    State(asio::io_context& context_, std::string path_, std::uint16_t mode_, Handler handler_,
          double timeout_)
        : context(context_),
          path(std::move(path_)),
          mode(mode_),
          handler(std::make_shared<const Handler>(std::move(handler_))),
          timeout(toDuration(timeout_)),
          acceptor(context_),
          retry(context_) {}

    asio::io_context& context;
    const std::string path;
    const std::uint16_t mode;
    // Emptied when the server goes, so nothing reaches its owner after that;
    // a call in progress holds its own reference, in case it ends the server.
    std::shared_ptr<const Handler> handler;
    const std::chrono::steady_clock::duration timeout;
    Acceptor acceptor;
    asio::steady_timer retry;
    std::unordered_set<Connection::Session*> sessions;  // open ones; each removes itself on close

    void awaitConnections();
    void acceptReady();
};

// One accepted connection from accept to close. Kept alive by its pending
// operations and by the owner's Connection handle; every completion first
// checks the phase, since a completion may already be queued when the phase
// changes under it.
struct AsyncSocketServer::Connection::Session : std::enable_shared_from_this<Session> {
    enum class Phase { reading, held, writing, closed };

    Session(std::shared_ptr<State> state_, UniqueFd fd)
        : state(std::move(state_)), socket(state->context), timer(state->context) {
        std::error_code error;
        socket.assign(asio::local::stream_protocol(), fd.get(), error);
        if (!error) fd.release();
        state->sessions.insert(this);
    }
    ~Session() { state->sessions.erase(this); }

    std::shared_ptr<State> state;
    Socket socket;
    asio::steady_timer timer;
    Phase phase = Phase::reading;
    bool hungUp = false;
    bool watchable = false;  // the line ended with a newline, so an end of file means the peer left
    std::string buffer;      // the request line while reading, the reply while writing
    std::function<void()> closedCallback;
    char scratch[kWatchChunk];

    void start(std::uint32_t uid);
    void lineRead(std::uint32_t uid, const std::error_code& error, std::size_t length);
    void watch();
    void reply(std::string bytes);
    void onClosed(std::function<void()> callback);
    void close() noexcept;
};

void AsyncSocketServer::Connection::Session::start(std::uint32_t uid) {
    timer.expires_after(state->timeout);
    timer.async_wait([self = shared_from_this()](const std::error_code& error) {
        if (error || self->phase != Phase::reading) return;
        std::error_code ignored;
        self->socket.cancel(ignored);  // the read completes with what it has
    });
    asio::async_read_until(
        socket, asio::dynamic_buffer(buffer, UnixSocketLimits::kLineLimit), '\n',
        [self = shared_from_this(), uid](const std::error_code& error, std::size_t length) {
            self->lineRead(uid, error, length);
        });
}

void AsyncSocketServer::Connection::Session::lineRead(std::uint32_t uid, const std::error_code& error,
                                                      std::size_t length) {
    if (phase != Phase::reading) return;
    timer.cancel();
    if (error == asio::error::not_found) {  // the line limit passed without a newline
        close();
        return;
    }
    if (!error) {
        buffer.resize(length - 1);  // drops the newline and anything behind it
        watchable = true;
    } else if (buffer.empty()) {  // nothing came before the end, the error or the time-out
        close();
        return;
    }
    std::string line = std::move(buffer);
    buffer = std::string();
    phase = Phase::held;
    auto handler = state->handler;
    if (!handler) {
        close();
        return;
    }
    try {
        (*handler)(std::move(line), uid, std::make_shared<Connection>(shared_from_this()));
    } catch (...) {
        // The owner's failure must not reach the context's loop; its
        // connection is closed when its handle goes.
    }
    if (phase == Phase::held && watchable) watch();
}

// Keeps one read pending on a held connection: its end of file (or error) is
// the peer hanging up. Bytes that arrive are a second request, which is not
// served, and are dropped.
void AsyncSocketServer::Connection::Session::watch() {
    socket.async_read_some(asio::buffer(scratch),
                           [self = shared_from_this()](const std::error_code& error, std::size_t) {
                               if (self->phase != Phase::held) return;
                               if (!error) {
                                   self->watch();
                                   return;
                               }
                               self->hungUp = true;
                               auto callback = std::move(self->closedCallback);
                               self->close();
                               if (!callback) return;
                               try {
                                   callback();
                               } catch (...) {
                               }
                           });
}

void AsyncSocketServer::Connection::Session::reply(std::string bytes) {
    if (phase != Phase::held) return;
    phase = Phase::writing;
    closedCallback = nullptr;
    std::error_code ignored;
    socket.cancel(ignored);  // ends the watch; its completion sees the new phase
    buffer = std::move(bytes);
    buffer.push_back('\n');
    timer.expires_after(state->timeout);
    timer.async_wait([self = shared_from_this()](const std::error_code& error) {
        if (!error && self->phase == Phase::writing) self->close();
    });
    asio::async_write(socket, asio::buffer(buffer),
                      [self = shared_from_this()](const std::error_code&, std::size_t) {
                          if (self->phase == Phase::writing) self->close();
                      });
}

void AsyncSocketServer::Connection::Session::onClosed(std::function<void()> callback) {
    if (phase == Phase::held) {
        closedCallback = std::move(callback);
    } else if (hungUp && callback) {
        asio::post(state->context, [self = shared_from_this(), callback = std::move(callback)] {
            if (!self->state->handler) return;  // the server went meanwhile
            try {
                callback();
            } catch (...) {
            }
        });
    }
}

void AsyncSocketServer::Connection::Session::close() noexcept {
    if (phase == Phase::closed) return;
    phase = Phase::closed;
    closedCallback = nullptr;
    std::error_code ignored;
    timer.cancel();
    socket.shutdown(Socket::shutdown_both, ignored);
    socket.close(ignored);
    buffer = std::string();
    state->sessions.erase(this);
}

AsyncSocketServer::Connection::Connection(std::shared_ptr<Session> session) noexcept
    : session_(std::move(session)) {}

AsyncSocketServer::Connection::~Connection() {
    // A handle dropped without a reply closes the connection rather than
    // leaving the peer to wait for its own time-out.
    auto& context = session_->state->context;
    try {
        asio::dispatch(context, [session = std::move(session_)] {
            if (session->phase == Session::Phase::held) session->close();
        });
    } catch (...) {  // out of memory: the peer meets its own time-out instead
    }
}

void AsyncSocketServer::Connection::reply(std::string bytes) {
    asio::dispatch(session_->state->context, [session = session_, bytes = std::move(bytes)]() mutable {
        session->reply(std::move(bytes));
    });
}

void AsyncSocketServer::Connection::onClosed(std::function<void()> callback) {
    asio::dispatch(session_->state->context, [session = session_, callback = std::move(callback)]() mutable {
        session->onClosed(std::move(callback));
    });
}

bool AsyncSocketServer::Connection::open() const noexcept {
    return session_->phase == Session::Phase::held && session_->state->handler != nullptr;
}

void AsyncSocketServer::State::awaitConnections() {
    acceptor.async_wait(Acceptor::wait_read, [self = shared_from_this()](const std::error_code& error) {
        if (error || !self->acceptor.is_open()) return;
        self->acceptReady();
    });
}

// Accepts through the shared seam rather than Asio's own accept, so that every
// descriptor is close-on-exec (a held connection leaked into a child process
// would never look closed to its peer) and protected from SIGPIPE.
void AsyncSocketServer::State::acceptReady() {
    for (int taken = 0; taken < kAcceptsPerWake; ++taken) {
        UniqueFd fd(SocketSystem::acceptConnection(acceptor.native_handle()));
        if (!fd) {
            int code = errno;
            if (code == EINTR || code == ECONNABORTED || code == EPROTO) continue;
            if (code == EAGAIN || code == EWOULDBLOCK) break;
            // Out of descriptors or memory: try again shortly, never give up
            // the intake for good.
            retry.expires_after(kAcceptRetry);
            retry.async_wait([self = shared_from_this()](const std::error_code& error) {
                if (!error && self->acceptor.is_open()) self->awaitConnections();
            });
            return;
        }
        auto uid = SocketSystem::peerUid(fd.get());
        if (!uid) continue;  // closes the descriptor
        auto session = std::make_shared<Connection::Session>(shared_from_this(), std::move(fd));
        if (!session->socket.is_open()) {
            session->close();
            continue;
        }
        session->start(*uid);
    }
    awaitConnections();
}

AsyncSocketServer::AsyncSocketServer(asio::io_context& context, std::string path, std::uint16_t mode,
                                     Handler handler, double readTimeoutSeconds)
    : state_(
          std::make_shared<State>(context, std::move(path), mode, std::move(handler), readTimeoutSeconds)) {}

AsyncSocketServer::~AsyncSocketServer() {
    stop();
    state_->handler = nullptr;
    auto open = std::vector<Connection::Session*>(state_->sessions.begin(), state_->sessions.end());
    for (auto* session : open) session->close();
}

void AsyncSocketServer::start() {
    stop();  // a second start replaces the first listener
    UniqueFd fd(SocketSystem::openStreamSocket());
    if (!fd) throw SocketError::system("socket", errno);
    bindPrivately(fd.get(), state_->path, state_->mode);
    if (::listen(fd.get(), kBacklog) != 0) {
        int code = errno;
        ::unlink(state_->path.c_str());
        throw SocketError::system("listen", code);
    }
    std::error_code error;
    state_->acceptor.assign(asio::local::stream_protocol(), fd.get(), error);
    if (!error) {
        fd.release();
        state_->acceptor.non_blocking(true, error);  // the accept loop drains until EAGAIN
    }
    if (error) {
        stop();
        ::unlink(state_->path.c_str());
        throw SocketError::system("listen", error.value());
    }
    state_->awaitConnections();
}

void AsyncSocketServer::stop() {
    if (!state_->acceptor.is_open()) return;
    std::error_code ignored;
    state_->acceptor.close(ignored);
    state_->retry.cancel();
    ::unlink(state_->path.c_str());
}

const std::string& AsyncSocketServer::path() const noexcept {
    return state_->path;
}

std::uint16_t AsyncSocketServer::mode() const noexcept {
    return state_->mode;
}

bool AsyncSocketServer::listening() const noexcept {
    return state_->acceptor.is_open();
}

std::size_t AsyncSocketServer::openConnections() const noexcept {
    return state_->sessions.size();
}

}  // namespace tavra
