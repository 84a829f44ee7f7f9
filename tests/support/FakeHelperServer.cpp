#include "support/FakeHelperServer.h"

#include <gtest/gtest.h>

#include "core/Version.h"

namespace tavra::testing {

FakeHelperServer::FakeHelperServer(std::string path)
    : server_(std::move(path), 0600, [this](std::string line, std::uint32_t, UnixSocketServer::Reply reply) {
          handle(line, std::move(reply));
      }) {
    server_.start();
}

FakeHelperServer::~FakeHelperServer() {
    server_.stop();
    std::vector<UnixSocketServer::Reply> unanswered;
    {
        std::lock_guard lock(mutex_);
        unanswered.swap(unanswered_);
    }
    // Dropping a reply closes its connection without an answer.
    unanswered.clear();
}

void FakeHelperServer::setMode(Mode mode) {
    std::lock_guard lock(mutex_);
    mode_ = mode;
}

std::vector<HelperRequest> FakeHelperServer::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

void FakeHelperServer::handle(const std::string& line, UnixSocketServer::Reply reply) {
    HelperRequest request;
    try {
        request = TavraJSON::decode<HelperRequest>(line);
    } catch (const std::exception& error) {
        ADD_FAILURE() << "the helper got an undecodable request: " << line;
        reply(TavraJSON::encodeValue(HelperResponse::error("bad request")));
        return;
    }
    Mode mode;
    {
        std::lock_guard lock(mutex_);
        requests_.push_back(request);
        mode = mode_;
        if (mode == Mode::silent) {
            unanswered_.push_back(std::move(reply));
            return;
        }
    }
    if (mode == Mode::refuse) {
        reply(TavraJSON::encodeValue(HelperResponse::error("forbidden")));
        return;
    }
    HelperStatus status{std::string(TavraVersion::current), HelperPlan::released, 30, std::nullopt};
    if (auto* apply = std::get_if<HelperRequest::Apply>(&request.value)) status.plan = apply->plan;
    reply(TavraJSON::encodeValue(HelperResponse::ok(status)));
}

}  // namespace tavra::testing
