#pragma once

// The asynchronous side of the local transport: the same framing, limits and
// errors as UnixSocketServer (one request line in, one reply line out, the
// newline added and stripped by the transport), served on the owner's own
// serial context instead of a thread pool, so that thousands of connections,
// and connections held open for minutes, cost no thread each.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "kit/UnixSocket.h"

namespace asio {
class io_context;
}

namespace tavra {

// Listens on a path and hands each request line, with the peer's user ID, to
// the handler.
//
// Context: every callback (the handler, onClosed) runs on the io_context given
// at construction, which one thread runs; the server takes no lock.
// Construction, start(), stop() and destruction belong to that thread (or to
// any thread while the context is not running). The context must outlive the
// server and every Connection handed out.
//
// Per connection: the peer's user ID is taken from the kernel as soon as the
// connection is accepted, before any byte is read, so the owner can refuse a
// foreign peer without decoding its line. The request line must arrive within
// `readTimeoutSeconds` of the connect and be shorter than
// UnixSocketLimits::kLineLimit; otherwise the connection is closed without a
// handler call, unless some bytes came, which are delivered as the line as
// they stand (the same as a line cut off by the peer's end of file). Bytes
// behind the first newline are dropped. Once the line has been handed over
// the connection has no time-out of the server's own: the owner decides how
// long to hold it. The reply's write is bounded by the same time-out.
class AsyncSocketServer {
public:
    class Connection;
    using Handler =
        std::function<void(std::string line, std::uint32_t peerUid, std::shared_ptr<Connection> connection)>;

    // Stores the arguments; touches nothing on the file system.
    AsyncSocketServer(asio::io_context& context, std::string path, std::uint16_t mode, Handler handler,
                      double readTimeoutSeconds = UnixSocketLimits::kServerTimeout);
    // Stops listening and closes every connection still open, without a reply
    // and without calling any onClosed callback.
    ~AsyncSocketServer();
    AsyncSocketServer(const AsyncSocketServer&) = delete;
    AsyncSocketServer& operator=(const AsyncSocketServer&) = delete;

    // Replaces whatever stands at the path with a socket of exactly `mode`
    // (it never exists with wider permissions, not even for a moment) and
    // listens. Throws SocketError: pathTooLong, or system with the operation
    // "socket", "bind", "chmod" or "listen". A second start() replaces the
    // first listener. Connections are accepted once the context runs.
    void start();

    // Closes the listening socket and unlinks the path. Connections already
    // accepted are still served. Idempotent.
    void stop();

    const std::string& path() const noexcept;
    std::uint16_t mode() const noexcept;
    bool listening() const noexcept;
    // Accepted connections not yet closed: those being read, held or written.
    std::size_t openConnections() const noexcept;

    struct State;  // shared with the pending operations; internal

private:
    std::shared_ptr<State> state_;
};

// One accepted connection whose line has been handed to the handler. Dropping
// the last handle without a reply closes the connection without an answer.
class AsyncSocketServer::Connection {
public:
    struct Session;  // internal
    explicit Connection(std::shared_ptr<Session> session) noexcept;
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Writes `bytes` plus a newline and closes the connection. Only the first
    // call counts; later calls, and calls after the peer hung up, do nothing.
    // Safe from any thread: off the context it is posted there. Never throws
    // beyond std::bad_alloc.
    void reply(std::string bytes);

    // `callback` runs on the context once, if the peer hangs up (end of file
    // or an error) before a reply was written: this is how a request the owner
    // holds learns that its asker went away. It never runs after reply(), nor
    // after the server or this handle is gone. Registered after the hang-up,
    // it is posted at once. A later registration replaces an earlier one.
    // Exceptions it throws are swallowed. The end of the peer's writing side
    // counts as hanging up, so a peer that waits for a held reply must not
    // shut it down after its newline; a peer that ended its line that way,
    // without a newline, cannot be told from one that left and is not watched.
    void onClosed(std::function<void()> callback);

    // Whether a reply can still be written: not yet replied, not hung up, the
    // server not destroyed. Read it on the context.
    bool open() const noexcept;

private:
    std::shared_ptr<Session> session_;
};

}  // namespace tavra
