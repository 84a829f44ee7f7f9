#pragma once

// A chat channel that records every call the daemon makes on it, in order,
// for whole-list assertions. Nothing leaves the process; flush() succeeds.

#include <ostream>

#include "remote/Channel.h"

namespace tavra::testing {

// kind: "alert" (key = the alert's id), "deliver" (key), "reply" (key = the
// tapped message, text = the origin's channel), "stamp" (key, text).
struct ChannelCall {
    std::string kind;
    std::string key;
    std::string text;
    std::optional<RemoteReply> reply;
    std::optional<Alert> alert;

    bool operator==(const ChannelCall&) const = default;
};

inline void PrintTo(const ChannelCall& call, std::ostream* os) {
    *os << call.kind << "(" << call.key << ", " << call.text << ", "
        << (call.reply ? call.reply->plain() : "") << ")";
}

class FakeChannel : public Channel {
public:
    explicit FakeChannel(std::string name) : name_(std::move(name)) {}

    std::vector<ChannelCall> calls;

    std::string_view name() const noexcept override { return name_; }
    void start(Sink) override {}
    void stop() override {}
    void deliverAlert(const Alert& alert) override { calls.push_back({"alert", alert.id, {}, {}, alert}); }
    void deliver(const RemoteReply& r, const std::string& k) override {
        calls.push_back({"deliver", k, {}, r, {}});
    }
    void reply(const RemoteReply& r, const ChannelOrigin& origin) override {
        calls.push_back({"reply", origin.message.value_or(""), origin.channel, r, {}});
    }
    void stamp(const std::string& k, const std::string& t) override {
        calls.push_back({"stamp", k, t, {}, {}});
    }
    bool flush(double) override { return true; }

private:
    std::string name_;
};

}  // namespace tavra::testing
