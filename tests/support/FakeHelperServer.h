#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "kit/Protocol.h"
#include "kit/UnixSocket.h"

namespace tavra::testing {

// A stand-in for the root helper on a real Unix socket: it decodes and
// records each request and answers as told. `silent` keeps the connection open
// without an answer, so the client runs into its time-out.
class FakeHelperServer {
public:
    enum class Mode { ok, refuse, silent };

    explicit FakeHelperServer(std::string path);
    ~FakeHelperServer();
    FakeHelperServer(const FakeHelperServer&) = delete;
    FakeHelperServer& operator=(const FakeHelperServer&) = delete;

    void setMode(Mode mode);
    std::vector<HelperRequest> requests() const;
    const std::string& path() const { return server_.path(); }

private:
    void handle(const std::string& line, UnixSocketServer::Reply reply);

    mutable std::mutex mutex_;
    Mode mode_ = Mode::ok;
    std::vector<HelperRequest> requests_;
    std::vector<UnixSocketServer::Reply> unanswered_;
    UnixSocketServer server_;
};

}  // namespace tavra::testing
