#pragma once

// The protocol between a user process and the root helper: one JSON request
// line and one JSON reply line per connection. Every accepted request is also
// the heartbeat that keeps a held plan alive.

#include <optional>
#include <string>
#include <variant>

#include "core/ConfigCoding.h"
#include "core/Date.h"

namespace tavra {

// What the helper must hold.
struct HelperPlan {
    bool disableLidSleep = false;  // keep the machine awake with the lid closed
    bool deferOSUpdates = false;   // hold automatic OS updates off

    static const HelperPlan released;  // both false

    bool operator==(const HelperPlan&) const = default;
};
inline const HelperPlan HelperPlan::released{};

void to_json(Json& j, const HelperPlan& plan);
void from_json(const Json& j, HelperPlan& plan);

// A request to the helper; a tagged union, cases in wire order.
struct HelperRequest {
    struct Heartbeat {
        bool operator==(const Heartbeat&) const = default;
    };
    struct Apply {
        HelperPlan plan;
        bool operator==(const Apply&) const = default;
    };
    struct SleepNow {
        bool operator==(const SleepNow&) const = default;
    };
    struct RestoreDefaults {
        bool operator==(const RestoreDefaults&) const = default;
    };
    using Case = std::variant<Heartbeat, Apply, SleepNow, RestoreDefaults>;

    Case value;

    static HelperRequest heartbeat() { return {Heartbeat{}}; }
    static HelperRequest apply(HelperPlan plan) { return {Apply{plan}}; }
    static HelperRequest sleepNow() { return {SleepNow{}}; }
    static HelperRequest restoreDefaults() { return {RestoreDefaults{}}; }

    bool operator==(const HelperRequest&) const = default;
};

void to_json(Json& j, const HelperRequest& request);
void from_json(const Json& j, HelperRequest& request);

// The helper's state after a request was carried out.
struct HelperStatus {
    std::string version;                // the helper's TavraVersion::current
    HelperPlan plan;                    // what is held now, which need not be what was asked
    double watchdogSeconds = 0;         // a client must send more often than this
    std::optional<Date> lastHeartbeat;  // the last accepted request

    bool operator==(const HelperStatus&) const = default;
};

void to_json(Json& j, const HelperStatus& status);
void from_json(const Json& j, HelperStatus& status);

// The helper's reply; a tagged union.
struct HelperResponse {
    struct Ok {
        HelperStatus status;
        bool operator==(const Ok&) const = default;
    };
    struct Failure {
        std::string message;  // "forbidden", "bad request"
        bool operator==(const Failure&) const = default;
    };
    using Case = std::variant<Ok, Failure>;

    Case value;

    static HelperResponse ok(HelperStatus status) { return {Ok{std::move(status)}}; }
    static HelperResponse error(std::string message) { return {Failure{std::move(message)}}; }

    bool operator==(const HelperResponse&) const = default;
};

void to_json(Json& j, const HelperResponse& response);
void from_json(const Json& j, HelperResponse& response);

}  // namespace tavra
