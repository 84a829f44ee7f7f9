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

namespace {
constexpr auto kRequestNames =
    TavraJSON::unionNames<HelperRequest::Case>("heartbeat", "apply", "sleepNow", "restoreDefaults");
constexpr auto kResponseNames = TavraJSON::unionNames<HelperResponse::Case>("ok", "error");
}  // namespace

void to_json(Json& j, const HelperRequest::Apply& c) {
    j = TavraJSON::unlabelled(c.plan);
}
void from_json(const Json& j, HelperRequest::Apply& c) {
    c.plan = required<HelperPlan>(j, "_0");
}

void to_json(Json& j, const HelperRequest& request) {
    j = TavraJSON::encodeUnion(request.value, kRequestNames);
}

void from_json(const Json& j, HelperRequest& request) {
    request.value = TavraJSON::decodeUnion(j, kRequestNames);
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

void to_json(Json& j, const HelperResponse::Ok& c) {
    j = TavraJSON::unlabelled(c.status);
}
void from_json(const Json& j, HelperResponse::Ok& c) {
    c.status = required<HelperStatus>(j, "_0");
}
void to_json(Json& j, const HelperResponse::Failure& c) {
    j = TavraJSON::unlabelled(c.message);
}
void from_json(const Json& j, HelperResponse::Failure& c) {
    c.message = required<std::string>(j, "_0");
}

void to_json(Json& j, const HelperResponse& response) {
    j = TavraJSON::encodeUnion(response.value, kResponseNames);
}

void from_json(const Json& j, HelperResponse& response) {
    response.value = TavraJSON::decodeUnion(j, kResponseNames);
}

}  // namespace tavra
