#pragma once

// The records of the engine's exchange with its owner: alerts and journal
// entries (with JSON forms), the effects the engine asks for, the decision of
// one input, the user's commands (with JSON form) and the inputs themselves.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "core/ConfigCoding.h"
#include "core/Date.h"
#include "core/Models.h"
#include "core/Settings.h"

namespace tavra {

// ---- Alert -------------------------------------------------------------------

// A button: its face and a text in the remote command language.
struct AlertAction {
    std::string label;
    std::string command;

    bool operator==(const AlertAction&) const = default;
};

void to_json(Json& j, const AlertAction& action);
void from_json(const Json& j, AlertAction& action);

struct Alert {
    enum class Level { info, warning, critical };
    enum class Category {
        finished,
        permission,
        paused,
        resumed,
        battery,
        thermal,
        network,
        stuck,
        sleep,
        system,
        approval
    };

    // Every field has a default so that alerts are built by name, giving only
    // what they carry.
    std::string id{};
    std::string title{};
    std::string body{};
    Level level = Level::info;
    Category category = Category::system;
    std::optional<RunKey> run{};
    std::vector<AlertAction> actions{};
    std::optional<double> workSeconds{};  // working time of the turn, on finished alerts

    bool operator==(const Alert&) const = default;
};

std::string_view toString(Alert::Level level) noexcept;
std::optional<Alert::Level> parseAlertLevel(std::string_view text) noexcept;
std::string_view toString(Alert::Category category) noexcept;
std::optional<Alert::Category> parseAlertCategory(std::string_view text) noexcept;
void to_json(Json& j, Alert::Level level);
void from_json(const Json& j, Alert::Level& level);
void to_json(Json& j, Alert::Category category);
void from_json(const Json& j, Alert::Category& category);
void to_json(Json& j, const Alert& alert);
void from_json(const Json& j, Alert& alert);

// ---- JournalEntry ------------------------------------------------------------

// One line of the history from which reports are built.
struct JournalEntry {
    enum class Kind {
        runStarted,
        turnFinished,
        runEnded,
        paused,
        resumed,
        sleep,
        guardTripped,
        approval,
        power
    };

    Date date{};
    Kind kind = Kind::power;
    std::optional<RunKey> run{};
    std::optional<std::string> cwd{};
    std::optional<std::string> reason{};
    std::optional<std::string> detail{};
    std::optional<double> workingSeconds{};

    bool operator==(const JournalEntry&) const = default;
};

std::string_view toString(JournalEntry::Kind kind) noexcept;
std::optional<JournalEntry::Kind> parseJournalEntryKind(std::string_view text) noexcept;
void to_json(Json& j, JournalEntry::Kind kind);
void from_json(const Json& j, JournalEntry::Kind& kind);
void to_json(Json& j, const JournalEntry& entry);
void from_json(const Json& j, JournalEntry& entry);

// ---- Effect ------------------------------------------------------------------

// What the engine asks its owner to do. Compared by value; no JSON form.
struct Effect {
    struct Freeze {
        RunKey key;
        std::int32_t pid = 0;
        bool operator==(const Freeze&) const = default;
    };
    struct Thaw {
        RunKey key;
        std::int32_t pid = 0;
        bool operator==(const Thaw&) const = default;
    };
    // Show an alert.
    struct Notify {
        Alert alert;
        bool operator==(const Notify&) const = default;
    };
    struct Journal {
        JournalEntry entry;
        bool operator==(const Journal&) const = default;
    };
    struct SleepNow {
        std::string reason;
        bool operator==(const SleepNow&) const = default;
    };

    std::variant<Freeze, Thaw, Notify, Journal, SleepNow> value;

    static Effect freeze(RunKey key, std::int32_t pid) { return Effect{Freeze{std::move(key), pid}}; }
    static Effect thaw(RunKey key, std::int32_t pid) { return Effect{Thaw{std::move(key), pid}}; }
    static Effect alert(Alert a) { return Effect{Notify{std::move(a)}}; }
    static Effect journal(JournalEntry entry) { return Effect{Journal{std::move(entry)}}; }
    static Effect sleepNow(std::string reason) { return Effect{SleepNow{std::move(reason)}}; }

    template <class Case>
    bool is() const noexcept {
        return std::holds_alternative<Case>(value);
    }
    template <class Case>
    const Case* as() const noexcept {
        return std::get_if<Case>(&value);
    }

    // The run the effect concerns, if any: the key of freeze and thaw, the
    // `run` of an alert or a journal entry.
    std::optional<RunKey> runKey() const;

    bool operator==(const Effect&) const = default;
};

// A readable one-line form for test failures and logs ("freeze(claude:s1, 42)").
std::string describe(const Effect& effect);

// ---- Decision ----------------------------------------------------------------

struct Decision {
    PowerPlan plan;
    std::vector<Effect> effects;  // in the order to carry them out

    // The alert of each alert effect, in order.
    std::vector<Alert> alerts() const;

    bool operator==(const Decision&) const = default;
};

// ---- UserCommand -------------------------------------------------------------

// What a user can order, locally or from a phone. JSON as a tagged union:
// {"pause":{}}, {"pause":{"_0":{"agent":"claude","session":"s1"}}},
// {"hold":{"id":"build","until":"..."}}, {"setEnabled":{"_0":false}}, ...
struct UserCommand {
    struct Pause {  // one run, or all when absent
        std::optional<RunKey> key;
        bool operator==(const Pause&) const = default;
    };
    struct Resume {  // one run, or all when absent
        std::optional<RunKey> key;
        bool operator==(const Resume&) const = default;
    };
    struct Forget {
        RunKey key;
        bool operator==(const Forget&) const = default;
    };
    struct StayAwake {  // absent `until` stops holding
        std::optional<Date> until;
        bool operator==(const StayAwake&) const = default;
    };
    struct Hold {  // absent `until` removes the hold
        std::string id;
        std::optional<Date> until;
        bool operator==(const Hold&) const = default;
    };
    struct SetEnabled {
        bool value = true;
        bool operator==(const SetEnabled&) const = default;
    };
    struct SleepNow {
        bool operator==(const SleepNow&) const = default;
    };

    std::variant<Pause, Resume, Forget, StayAwake, Hold, SetEnabled, SleepNow> value;

    static UserCommand pause(std::optional<RunKey> key = std::nullopt) { return {Pause{std::move(key)}}; }
    static UserCommand resume(std::optional<RunKey> key = std::nullopt) { return {Resume{std::move(key)}}; }
    static UserCommand forget(RunKey key) { return {Forget{std::move(key)}}; }
    static UserCommand stayAwake(std::optional<Date> until) { return {StayAwake{until}}; }
    static UserCommand hold(std::string id, std::optional<Date> until) {
        return {Hold{std::move(id), until}};
    }
    static UserCommand setEnabled(bool on) { return {SetEnabled{on}}; }
    static UserCommand sleepNow() { return {SleepNow{}}; }

    bool operator==(const UserCommand&) const = default;
};

void to_json(Json& j, const UserCommand& command);
void from_json(const Json& j, UserCommand& command);

// ---- PolicyInput -------------------------------------------------------------

// One observation for the engine. Compared by value; no JSON form.
struct PolicyInput {
    struct Agent {
        AgentEvent event;
        bool operator==(const Agent&) const = default;
    };
    struct System {
        SystemSnapshot snapshot;
        bool operator==(const System&) const = default;
    };
    struct Progress {  // file activity in the run's directory
        RunKey key;
        bool operator==(const Progress&) const = default;
    };
    struct ProcessExited {
        RunKey key;
        bool operator==(const ProcessExited&) const = default;
    };
    struct Command {
        UserCommand command;
        bool operator==(const Command&) const = default;
    };
    struct Settings {
        PolicySettings settings;
        bool operator==(const Settings&) const = default;
    };
    struct Tick {
        bool operator==(const Tick&) const = default;
    };

    std::variant<Agent, System, Progress, ProcessExited, Command, Settings, Tick> value;

    static PolicyInput agent(AgentEvent event) { return {Agent{std::move(event)}}; }
    static PolicyInput system(SystemSnapshot snapshot) { return {System{std::move(snapshot)}}; }
    static PolicyInput progress(RunKey key) { return {Progress{std::move(key)}}; }
    static PolicyInput processExited(RunKey key) { return {ProcessExited{std::move(key)}}; }
    static PolicyInput command(UserCommand c) { return {Command{std::move(c)}}; }
    static PolicyInput settings(PolicySettings s) { return {Settings{std::move(s)}}; }
    static PolicyInput tick() { return {Tick{}}; }

    bool operator==(const PolicyInput&) const = default;
};

}  // namespace tavra
