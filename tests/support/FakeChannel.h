#pragma once

// A chat channel that records every call the daemon makes on it, in order,
// for whole-list assertions. Nothing leaves the process; flush() succeeds.

#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "core/ConfigCoding.h"
#include "remote/Channel.h"

namespace tavra::testing {

// kind: "alert" (key = the alert's id), "deliver" (key), "reply" (key = the
// tapped message, text = the origin's channel), "stamp" (key, text), "flush".
struct ChannelCall {
    std::string kind;
    std::string key;
    std::string text;
    std::optional<RemoteReply> reply;
    std::optional<Alert> alert;

    bool operator==(const ChannelCall&) const = default;
};

inline void PrintTo(const ChannelCall& call, std::ostream* os) {
    *os << call.kind << "(" << call.key << ", " << call.text;
    if (call.reply) *os << ", \"" << call.reply->plain() << "\"";
    if (call.alert) *os << ", " << TavraJSON::encode(Json(*call.alert));
    *os << ")";
}

class FakeChannel : public Channel {
public:
    explicit FakeChannel(std::string name) : name_(std::move(name)) {}

    std::vector<ChannelCall> calls;

    std::string_view name() const noexcept override { return name_; }
    void start(Sink) override {}
    void stop() override {}
    void deliverAlert(const Alert& alert) override { calls.push_back({"alert", alert.id, {}, {}, alert}); }
    void deliver(const RemoteReply& reply, const std::string& key) override {
        calls.push_back({"deliver", key, {}, reply, {}});
    }
    void reply(const RemoteReply& reply, const ChannelOrigin& origin) override {
        calls.push_back({"reply", origin.message.value_or(""), origin.channel, reply, {}});
    }
    void stamp(const std::string& key, const std::string& text) override {
        calls.push_back({"stamp", key, text, {}, {}});
    }
    bool flush(double) override {
        calls.push_back({"flush", {}, {}, {}, {}});
        return true;
    }

    // The calls so far, forgetting them.
    std::vector<ChannelCall> take() { return std::exchange(calls, {}); }

private:
    std::string name_;
};

}  // namespace tavra::testing
