#include "kit/HelperProtocol.h"

namespace tavra {

using TavraJSON::optional;
using TavraJSON::required;

void to_json(Json& j, const HelperPlan& plan) {
    j = Json::object();
    j["disableLidSleep"] = plan.disableLidSleep;
    j["deferOSUpdates"] = plan.deferOSUpdates;
}

void from_json(const Json& j, HelperPlan& plan) {
    TavraJSON::requireObject(j, "HelperPlan");
    plan.disableLidSleep = required<bool>(j, "disableLidSleep");
    plan.deferOSUpdates = required<bool>(j, "deferOSUpdates");
}

void to_json(Json& j, const HelperRequest& request) {
    struct Write {
        Json operator()(const HelperRequest::Heartbeat&) const { return TavraJSON::writeUnion("heartbeat"); }
        Json operator()(const HelperRequest::Apply& c) const {
            return TavraJSON::writeUnion0("apply", c.plan);
        }
        Json operator()(const HelperRequest::SleepNow&) const { return TavraJSON::writeUnion("sleepNow"); }
        Json operator()(const HelperRequest::RestoreDefaults&) const {
            return TavraJSON::writeUnion("restoreDefaults");
        }
    };
    j = std::visit(Write{}, request.value);
}

void from_json(const Json& j, HelperRequest& request) {
    auto found = TavraJSON::readUnion(j, {"heartbeat", "apply", "sleepNow", "restoreDefaults"});
    switch (found.index) {
        case 0:
            request = HelperRequest::heartbeat();
            break;
        case 1:
            request = HelperRequest::apply(required<HelperPlan>(found.payload, "_0"));
            break;
        case 2:
            request = HelperRequest::sleepNow();
            break;
        default:
            request = HelperRequest::restoreDefaults();
            break;
    }
}

void to_json(Json& j, const HelperStatus& status) {
    j = Json::object();
    j["version"] = status.version;
    j["plan"] = status.plan;
    j["watchdogSeconds"] = status.watchdogSeconds;
    TavraJSON::setOptional(j, "lastHeartbeat", status.lastHeartbeat);
}

void from_json(const Json& j, HelperStatus& status) {
    TavraJSON::requireObject(j, "HelperStatus");
    status.version = required<std::string>(j, "version");
    status.plan = required<HelperPlan>(j, "plan");
    status.watchdogSeconds = required<double>(j, "watchdogSeconds");
    status.lastHeartbeat = optional<Date>(j, "lastHeartbeat");
}

void to_json(Json& j, const HelperResponse& response) {
    struct Write {
        Json operator()(const HelperResponse::Ok& c) const { return TavraJSON::writeUnion0("ok", c.status); }
        Json operator()(const HelperResponse::Failure& c) const {
            return TavraJSON::writeUnion0("error", c.message);
        }
    };
    j = std::visit(Write{}, response.value);
}

void from_json(const Json& j, HelperResponse& response) {
    auto found = TavraJSON::readUnion(j, {"ok", "error"});
    if (found.index == 0)
        response = HelperResponse::ok(required<HelperStatus>(found.payload, "_0"));
    else
        response = HelperResponse::error(required<std::string>(found.payload, "_0"));
}

}  // namespace tavra
