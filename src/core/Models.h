#pragma once

// The words shared by the engine and the wire protocols: who an agent is, the
// key of a run, one observation from an agent, one sample of the machine, the
// plan of what the machine must hold, and the records of approvals and
// questions. All are plain values with a JSON form (see core/ConfigCoding.h).

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/ConfigCoding.h"
#include "core/Date.h"

namespace tavra {

// ---- AgentKind ---------------------------------------------------------------

// The name of an agent tool. Deliberately open: a tool unknown to this release
// is still tracked under its own name. In JSON the bare string.
struct AgentKind {
    std::string rawValue;

    static const AgentKind claude;
    static const AgentKind codex;
    static const AgentKind grok;

    const std::string& description() const noexcept { return rawValue; }

    bool operator==(const AgentKind&) const = default;
    std::strong_ordering operator<=>(const AgentKind& other) const noexcept {
        return rawValue.compare(other.rawValue) <=> 0;
    }
};

inline const AgentKind AgentKind::claude{"claude"};
inline const AgentKind AgentKind::codex{"codex"};
inline const AgentKind AgentKind::grok{"grok"};

void to_json(Json& j, const AgentKind& kind);
void from_json(const Json& j, AgentKind& kind);

// ---- RunKey ------------------------------------------------------------------

// The identity of a run, unique across agents. In text "{agent}:{session}".
struct RunKey {
    AgentKind agent;
    std::string session;

    // "claude:abc123"; also the run's id and the middle of alert ids.
    std::string description() const;
    // The first 8 characters of the session, all of it when shorter.
    std::string shortSession() const;

    // Splits at the first ':'; everything after it, further ':' included, is
    // the session. Either side may be empty. No ':' gives no key.
    static std::optional<RunKey> parsing(std::string_view text);

    // Equality goes by the two fields; order by the description strings
    // ("a:b" against "a-b:c" compares ':' with '-'), computed without
    // building the strings. Distinct keys that read the same ("a:b" + "c",
    // "a" + "b:c") are ordered by agent, so maps never merge them.
    bool operator==(const RunKey&) const = default;
    std::strong_ordering operator<=>(const RunKey& other) const noexcept;
};

void to_json(Json& j, const RunKey& key);
void from_json(const Json& j, RunKey& key);

// ---- ToolCall ----------------------------------------------------------------

struct ToolCall {
    std::string name;       // shown in permission alerts
    std::string signature;  // equal for calls that repeat each other
    bool isFileWrite = false;
    std::optional<std::string> summary;

    bool operator==(const ToolCall&) const = default;
};

void to_json(Json& j, const ToolCall& call);
void from_json(const Json& j, ToolCall& call);

// ---- AgentEvent --------------------------------------------------------------

struct AgentEvent {
    enum class Kind {
        sessionStarted,
        promptSubmitted,
        toolStarted,
        toolFinished,
        toolFailed,
        permissionRequested,
        needsAttention,
        turnStopped,
        sessionEnded,
        activity,
    };
    static constexpr std::array<Kind, 10> kAllKinds{Kind::sessionStarted, Kind::promptSubmitted,
                                                    Kind::toolStarted,    Kind::toolFinished,
                                                    Kind::toolFailed,     Kind::permissionRequested,
                                                    Kind::needsAttention, Kind::turnStopped,
                                                    Kind::sessionEnded,   Kind::activity};

    AgentKind agent;
    std::string sessionID;
    Kind kind = Kind::activity;
    Date timestamp{};  // the engine never reads it; it works from its own `now`
    std::optional<std::string> cwd;
    std::optional<std::int32_t> pid;
    std::optional<ToolCall> tool;
    std::optional<std::string> message;
    std::optional<std::string> transcriptPath;

    RunKey runKey() const { return RunKey{agent, sessionID}; }

    bool operator==(const AgentEvent&) const = default;
};

std::string_view toString(AgentEvent::Kind kind) noexcept;
std::optional<AgentEvent::Kind> parseAgentEventKind(std::string_view text) noexcept;

void to_json(Json& j, AgentEvent::Kind kind);
void from_json(const Json& j, AgentEvent::Kind& kind);
void to_json(Json& j, const AgentEvent& event);
void from_json(const Json& j, AgentEvent& event);

// ---- PowerSource, ThermalLevel ----------------------------------------------------

enum class PowerSource { ac, battery, unknown };

std::string_view toString(PowerSource source) noexcept;
std::optional<PowerSource> parsePowerSource(std::string_view text) noexcept;
void to_json(Json& j, PowerSource source);
void from_json(const Json& j, PowerSource& source);

// Ordered by its integer value; in JSON that number.
enum class ThermalLevel : int { nominal = 0, fair = 1, serious = 2, critical = 3 };

inline constexpr std::array<ThermalLevel, 4> kAllThermalLevels{ThermalLevel::nominal, ThermalLevel::fair,
                                                               ThermalLevel::serious, ThermalLevel::critical};

// "cool", "warm", "hot", "critical".
std::string_view label(ThermalLevel level) noexcept;
std::optional<ThermalLevel> thermalLevelFromRaw(int raw) noexcept;
void to_json(Json& j, ThermalLevel level);
void from_json(const Json& j, ThermalLevel& level);

// ---- SystemSnapshot ----------------------------------------------------------

struct SystemSnapshot {
    PowerSource powerSource = PowerSource::unknown;
    std::optional<int> batteryPercent;
    ThermalLevel thermal = ThermalLevel::nominal;
    bool lidClosed = false;
    bool screenLocked = false;
    double userIdleSeconds = 0;
    bool networkReachable = true;
    bool helperAvailable = false;
    bool osUpdatePending = false;

    // The sample before any measurement. The network starts reachable while
    // the helper starts absent, deliberately.
    static const SystemSnapshot unknown;

    bool onBattery() const noexcept { return powerSource == PowerSource::battery; }
    bool userAway(double idleThreshold) const noexcept {
        return lidClosed || screenLocked || userIdleSeconds >= idleThreshold;
    }

    bool operator==(const SystemSnapshot&) const = default;
};

inline const SystemSnapshot SystemSnapshot::unknown{};

void to_json(Json& j, const SystemSnapshot& snapshot);
void from_json(const Json& j, SystemSnapshot& snapshot);

// ---- PowerPlan ---------------------------------------------------------------

struct PowerPlan {
    bool preventIdleSleep = false;
    bool disableLidSleep = false;
    bool deferOSUpdates = false;
    std::vector<std::string> reasons;  // words for people, in collection order

    static const PowerPlan released;

    bool holdsAnything() const noexcept { return preventIdleSleep || disableLidSleep || deferOSUpdates; }

    bool operator==(const PowerPlan&) const = default;
};

inline const PowerPlan PowerPlan::released{};

void to_json(Json& j, const PowerPlan& plan);
void from_json(const Json& j, PowerPlan& plan);

// ---- Approvals and questions -------------------------------------------------

enum class ApprovalDecision { allow, deny, noDecision };

std::string_view toString(ApprovalDecision decision) noexcept;
std::optional<ApprovalDecision> parseApprovalDecision(std::string_view text) noexcept;
void to_json(Json& j, ApprovalDecision decision);
void from_json(const Json& j, ApprovalDecision& decision);

struct AgentQuestion {
    struct Option {
        std::string label;
        std::optional<std::string> description;

        bool operator==(const Option&) const = default;
    };

    std::string question;
    std::optional<std::string> header;
    std::vector<Option> options;
    bool multiSelect = false;

    bool operator==(const AgentQuestion&) const = default;
};

void to_json(Json& j, const AgentQuestion::Option& option);
void from_json(const Json& j, AgentQuestion::Option& option);
void to_json(Json& j, const AgentQuestion& question);
void from_json(const Json& j, AgentQuestion& question);

struct ApprovalTicket {
    std::string id;
    RunKey run;
    std::string toolName;
    std::string summary;
    std::optional<std::string> cwd;
    std::optional<std::vector<AgentQuestion>> questions;

    // An empty list of questions counts as none.
    bool isQuestion() const noexcept { return questions.has_value() && !questions->empty(); }

    bool operator==(const ApprovalTicket&) const = default;
};

void to_json(Json& j, const ApprovalTicket& ticket);
void from_json(const Json& j, ApprovalTicket& ticket);

}  // namespace tavra

template <>
struct std::hash<tavra::AgentKind> {
    std::size_t operator()(const tavra::AgentKind& kind) const noexcept {
        return std::hash<std::string>{}(kind.rawValue);
    }
};

template <>
struct std::hash<tavra::RunKey> {
    std::size_t operator()(const tavra::RunKey& key) const noexcept {
        std::size_t h = std::hash<std::string>{}(key.agent.rawValue);
        return h ^ (std::hash<std::string>{}(key.session) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2));
    }
};
