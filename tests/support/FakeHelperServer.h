#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "core/Version.h"
#include "kit/HelperProtocol.h"
#include "kit/UnixSocket.h"

namespace tavra::testing {

// A stand-in for the root helper on a real Unix socket: it records each request
// and answers as told. `silent` keeps the connection open without an answer,
// so the client runs into its time-out.
class FakeHelperServer {
public:
    enum class Mode { ok, refuse, silent };

    explicit FakeHelperServer(std::string path)
        : server_(std::move(path), 0600,
                  [this](std::string line, std::uint32_t, UnixSocketServer::Reply reply) {
                      handle(line, std::move(reply));
                  }) {
        server_.start();
    }
    ~FakeHelperServer() {
        server_.stop();
        unanswered_.clear();  // closes those connections without an answer
    }
    FakeHelperServer(const FakeHelperServer&) = delete;
    FakeHelperServer& operator=(const FakeHelperServer&) = delete;

    void setMode(Mode mode) {
        std::lock_guard lock(mutex_);
        mode_ = mode;
    }
    std::vector<HelperRequest> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }

private:
    void handle(const std::string& line, UnixSocketServer::Reply reply) {
        const auto request = TavraJSON::decode<HelperRequest>(line);
        std::lock_guard lock(mutex_);
        requests_.push_back(request);
        if (mode_ == Mode::silent) {
            unanswered_.push_back(std::move(reply));
        } else if (mode_ == Mode::refuse) {
            reply(TavraJSON::encodeValue(HelperResponse::error("forbidden")));
        } else {
            HelperStatus status{std::string(TavraVersion::current), HelperPlan::released, 30, std::nullopt};
            if (auto* apply = std::get_if<HelperRequest::Apply>(&request.value)) status.plan = apply->plan;
            reply(TavraJSON::encodeValue(HelperResponse::ok(status)));
        }
    }

    mutable std::mutex mutex_;
    Mode mode_ = Mode::ok;
    std::vector<HelperRequest> requests_;
    std::vector<UnixSocketServer::Reply> unanswered_;
    UnixSocketServer server_;
};

}  // namespace tavra::testing
