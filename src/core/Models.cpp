#include "core/Models.h"

#include <algorithm>

#include "core/EnumTable.h"

namespace tavra {

using TavraJSON::optional;
using TavraJSON::required;
using TavraJSON::setOptional;

// ---- AgentKind ---------------------------------------------------------------

void to_json(Json& j, const AgentKind& kind) {
    j = kind.rawValue;
}
void from_json(const Json& j, AgentKind& kind) {
    kind.rawValue = TavraJSON::read<std::string>(j);
}

// ---- RunKey ------------------------------------------------------------------

std::string RunKey::description() const {
    std::string out;
    out.reserve(agent.rawValue.size() + 1 + session.size());
    out += agent.rawValue;
    out += ':';
    out += session;
    return out;
}

std::optional<RunKey> RunKey::parsing(std::string_view text) {
    auto colon = text.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    return RunKey{AgentKind{std::string(text.substr(0, colon))}, std::string(text.substr(colon + 1))};
}

std::strong_ordering RunKey::operator<=>(const RunKey& other) const noexcept {
    // Compares "{agent}:{session}" of both sides byte by byte (as unsigned
    // chars, like std::string) without allocating the joined strings.
    struct Joined {
        const std::string& a;
        const std::string& s;
        std::size_t size() const { return a.size() + 1 + s.size(); }
        unsigned char at(std::size_t i) const {
            if (i < a.size()) return static_cast<unsigned char>(a[i]);
            if (i == a.size()) return static_cast<unsigned char>(':');
            return static_cast<unsigned char>(s[i - a.size() - 1]);
        }
    };
    Joined l{agent.rawValue, session};
    Joined r{other.agent.rawValue, other.session};
    // Fast path: the agents differ before either ends.
    std::size_t n = std::min(l.size(), r.size());
    for (std::size_t i = 0; i < n; ++i) {
        unsigned char x = l.at(i);
        unsigned char y = r.at(i);
        if (x != y) return x <=> y;
    }
    if (auto bySize = l.size() <=> r.size(); bySize != 0) return bySize;
    // "a:b" + "c" and "a" + "b:c" read the same but are different keys; the
    // agent breaks the tie so that ordering stays consistent with equality.
    return agent.rawValue.compare(other.agent.rawValue) <=> 0;
}

void to_json(Json& j, const RunKey& key) {
    j = Json{{"agent", key.agent}, {"session", key.session}};
}

void from_json(const Json& j, RunKey& key) {
    TavraJSON::requireObject(j, "RunKey");
    key.agent = required<AgentKind>(j, "agent");
    key.session = required<std::string>(j, "session");
}

// ---- ToolCall ----------------------------------------------------------------

void to_json(Json& j, const ToolCall& call) {
    j = Json{{"name", call.name}, {"signature", call.signature}, {"isFileWrite", call.isFileWrite}};
    setOptional(j, "summary", call.summary);
}

void from_json(const Json& j, ToolCall& call) {
    TavraJSON::requireObject(j, "ToolCall");
    call.name = required<std::string>(j, "name");
    call.signature = required<std::string>(j, "signature");
    call.isFileWrite = required<bool>(j, "isFileWrite");
    call.summary = optional<std::string>(j, "summary");
}

// ---- String-valued enumerations ----------------------------------------------

namespace {

using EnumTable::lookup;
using EnumTable::nameOf;

constexpr std::array<std::pair<AgentEvent::Kind, std::string_view>, 10> kKindNames{{
    {AgentEvent::Kind::sessionStarted, "sessionStarted"},
    {AgentEvent::Kind::promptSubmitted, "promptSubmitted"},
    {AgentEvent::Kind::toolStarted, "toolStarted"},
    {AgentEvent::Kind::toolFinished, "toolFinished"},
    {AgentEvent::Kind::toolFailed, "toolFailed"},
    {AgentEvent::Kind::permissionRequested, "permissionRequested"},
    {AgentEvent::Kind::needsAttention, "needsAttention"},
    {AgentEvent::Kind::turnStopped, "turnStopped"},
    {AgentEvent::Kind::sessionEnded, "sessionEnded"},
    {AgentEvent::Kind::activity, "activity"},
}};

constexpr std::array<std::pair<PowerSource, std::string_view>, 3> kPowerSourceNames{{
    {PowerSource::ac, "ac"},
    {PowerSource::battery, "battery"},
    {PowerSource::unknown, "unknown"},
}};

constexpr std::array<std::pair<ApprovalDecision, std::string_view>, 3> kDecisionNames{{
    {ApprovalDecision::allow, "allow"},
    {ApprovalDecision::deny, "deny"},
    {ApprovalDecision::noDecision, "noDecision"},
}};

}  // namespace

std::string_view toString(AgentEvent::Kind kind) noexcept {
    return nameOf(kKindNames, kind);
}
std::optional<AgentEvent::Kind> parseAgentEventKind(std::string_view text) noexcept {
    return lookup(kKindNames, text);
}
void to_json(Json& j, AgentEvent::Kind kind) {
    j = std::string(toString(kind));
}
void from_json(const Json& j, AgentEvent::Kind& kind) {
    kind = TavraJSON::readEnum<AgentEvent::Kind>(j, parseAgentEventKind, "AgentEvent.Kind");
}

std::string_view toString(PowerSource source) noexcept {
    return nameOf(kPowerSourceNames, source);
}
std::optional<PowerSource> parsePowerSource(std::string_view text) noexcept {
    return lookup(kPowerSourceNames, text);
}
void to_json(Json& j, PowerSource source) {
    j = std::string(toString(source));
}
void from_json(const Json& j, PowerSource& source) {
    source = TavraJSON::readEnum<PowerSource>(j, parsePowerSource, "PowerSource");
}

std::string_view toString(ApprovalDecision decision) noexcept {
    return nameOf(kDecisionNames, decision);
}
std::optional<ApprovalDecision> parseApprovalDecision(std::string_view text) noexcept {
    return lookup(kDecisionNames, text);
}
void to_json(Json& j, ApprovalDecision decision) {
    j = std::string(toString(decision));
}
void from_json(const Json& j, ApprovalDecision& decision) {
    decision = TavraJSON::readEnum<ApprovalDecision>(j, parseApprovalDecision, "ApprovalDecision");
}

// ---- ThermalLevel ------------------------------------------------------------

std::string_view label(ThermalLevel level) noexcept {
    switch (level) {
        case ThermalLevel::nominal:
            return "cool";
        case ThermalLevel::fair:
            return "warm";
        case ThermalLevel::serious:
            return "hot";
        case ThermalLevel::critical:
            return "critical";
    }
    return "critical";
}

std::optional<ThermalLevel> thermalLevelFromRaw(int raw) noexcept {
    if (raw < 0 || raw > 3) return std::nullopt;
    return static_cast<ThermalLevel>(raw);
}

void to_json(Json& j, ThermalLevel level) {
    j = static_cast<int>(level);
}

void from_json(const Json& j, ThermalLevel& level) {
    int raw = TavraJSON::read<int>(j);
    auto parsed = thermalLevelFromRaw(raw);
    if (!parsed)
        throw DecodingError("cannot initialize ThermalLevel from invalid value " + std::to_string(raw));
    level = *parsed;
}

// ---- AgentEvent --------------------------------------------------------------

void to_json(Json& j, const AgentEvent& e) {
    j = Json{{"agent", e.agent}, {"sessionID", e.sessionID}, {"kind", e.kind}, {"timestamp", e.timestamp}};
    setOptional(j, "cwd", e.cwd);
    setOptional(j, "pid", e.pid);
    setOptional(j, "tool", e.tool);
    setOptional(j, "message", e.message);
    setOptional(j, "transcriptPath", e.transcriptPath);
}

void from_json(const Json& j, AgentEvent& e) {
    TavraJSON::requireObject(j, "AgentEvent");
    e.agent = required<AgentKind>(j, "agent");
    e.sessionID = required<std::string>(j, "sessionID");
    e.kind = required<AgentEvent::Kind>(j, "kind");
    e.timestamp = required<Date>(j, "timestamp");
    e.cwd = optional<std::string>(j, "cwd");
    e.pid = optional<std::int32_t>(j, "pid");
    e.tool = optional<ToolCall>(j, "tool");
    e.message = optional<std::string>(j, "message");
    e.transcriptPath = optional<std::string>(j, "transcriptPath");
}

// ---- SystemSnapshot ----------------------------------------------------------

void to_json(Json& j, const SystemSnapshot& s) {
    j = Json{{"powerSource", s.powerSource},
             {"thermal", s.thermal},
             {"lidClosed", s.lidClosed},
             {"screenLocked", s.screenLocked},
             {"userIdleSeconds", s.userIdleSeconds},
             {"networkReachable", s.networkReachable},
             {"helperAvailable", s.helperAvailable},
             {"osUpdatePending", s.osUpdatePending}};
    setOptional(j, "batteryPercent", s.batteryPercent);
}

void from_json(const Json& j, SystemSnapshot& s) {
    TavraJSON::requireObject(j, "SystemSnapshot");
    s.powerSource = required<PowerSource>(j, "powerSource");
    s.batteryPercent = optional<int>(j, "batteryPercent");
    s.thermal = required<ThermalLevel>(j, "thermal");
    s.lidClosed = required<bool>(j, "lidClosed");
    s.screenLocked = required<bool>(j, "screenLocked");
    s.userIdleSeconds = required<double>(j, "userIdleSeconds");
    s.networkReachable = required<bool>(j, "networkReachable");
    s.helperAvailable = required<bool>(j, "helperAvailable");
    s.osUpdatePending = required<bool>(j, "osUpdatePending");
}

// ---- PowerPlan ---------------------------------------------------------------

void to_json(Json& j, const PowerPlan& p) {
    j = Json{{"preventIdleSleep", p.preventIdleSleep},
             {"disableLidSleep", p.disableLidSleep},
             {"deferOSUpdates", p.deferOSUpdates},
             {"reasons", p.reasons}};
}

void from_json(const Json& j, PowerPlan& p) {
    TavraJSON::requireObject(j, "PowerPlan");
    p.preventIdleSleep = required<bool>(j, "preventIdleSleep");
    p.disableLidSleep = required<bool>(j, "disableLidSleep");
    p.deferOSUpdates = required<bool>(j, "deferOSUpdates");
    p.reasons = required<std::vector<std::string>>(j, "reasons");
}

// ---- Approvals and questions -------------------------------------------------

void to_json(Json& j, const AgentQuestion::Option& o) {
    j = Json{{"label", o.label}};
    setOptional(j, "description", o.description);
}

void from_json(const Json& j, AgentQuestion::Option& o) {
    TavraJSON::requireObject(j, "AgentQuestion.Option");
    o.label = required<std::string>(j, "label");
    o.description = optional<std::string>(j, "description");
}

void to_json(Json& j, const AgentQuestion& q) {
    j = Json{{"question", q.question}, {"options", q.options}, {"multiSelect", q.multiSelect}};
    setOptional(j, "header", q.header);
}

void from_json(const Json& j, AgentQuestion& q) {
    TavraJSON::requireObject(j, "AgentQuestion");
    q.question = required<std::string>(j, "question");
    q.header = optional<std::string>(j, "header");
    q.options = required<std::vector<AgentQuestion::Option>>(j, "options");
    q.multiSelect = required<bool>(j, "multiSelect");
}

void to_json(Json& j, const ApprovalTicket& t) {
    j = Json{{"id", t.id}, {"run", t.run}, {"toolName", t.toolName}, {"summary", t.summary}};
    setOptional(j, "cwd", t.cwd);
    setOptional(j, "questions", t.questions);
}

void from_json(const Json& j, ApprovalTicket& t) {
    TavraJSON::requireObject(j, "ApprovalTicket");
    t.id = required<std::string>(j, "id");
    t.run = required<RunKey>(j, "run");
    t.toolName = required<std::string>(j, "toolName");
    t.summary = required<std::string>(j, "summary");
    t.cwd = optional<std::string>(j, "cwd");
    t.questions = optional<std::vector<AgentQuestion>>(j, "questions");
}

}  // namespace tavra
