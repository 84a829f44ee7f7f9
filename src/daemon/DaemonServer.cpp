// The daemon's socket on the kit's asynchronous transport, on the daemon's
// own context: a held approval costs an open descriptor, not a thread, and a
// peer that hangs up early is noticed at once.

#include "kit/AsyncSocketServer.h"

#include "daemon/DaemonEnvironment.h"

namespace tavra {

namespace {

class AsyncConnection final : public DaemonConnection {
public:
    explicit AsyncConnection(std::shared_ptr<AsyncSocketServer::Connection> connection)
        : connection_(std::move(connection)) {}
    void reply(std::string bytes) override { connection_->reply(std::move(bytes)); }
    void onClosed(std::function<void()> closed) override { connection_->onClosed(std::move(closed)); }

private:
    std::shared_ptr<AsyncSocketServer::Connection> connection_;
};

class AsyncDaemonServer final : public DaemonServer {
public:
    AsyncDaemonServer(asio::io_context& context, const std::string& path, Handler handler)
        : server_(context, path, 0600,
                  [handler = std::move(handler)](std::string line, std::uint32_t uid,
                                                 std::shared_ptr<AsyncSocketServer::Connection> connection) {
                      handler(std::move(line), uid, std::make_shared<AsyncConnection>(std::move(connection)));
                  }) {
        server_.start();
    }

private:
    AsyncSocketServer server_;
};

}  // namespace

std::unique_ptr<DaemonServer> makeDaemonServer(asio::io_context& context, const std::string& path,
                                               DaemonServer::Handler handler) {
    return std::make_unique<AsyncDaemonServer>(context, path, std::move(handler));
}

}  // namespace tavra
