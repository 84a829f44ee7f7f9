#include "core/Effects.h"

#include "core/EnumTable.h"

namespace tavra {

using TavraJSON::optional;
using TavraJSON::required;
using TavraJSON::setOptional;

namespace {

constexpr EnumTable::Table<Alert::Level, 3> kLevelNames{{
    {Alert::Level::info, "info"},
    {Alert::Level::warning, "warning"},
    {Alert::Level::critical, "critical"},
}};

constexpr EnumTable::Table<Alert::Category, 11> kCategoryNames{{
    {Alert::Category::finished, "finished"},
    {Alert::Category::permission, "permission"},
    {Alert::Category::paused, "paused"},
    {Alert::Category::resumed, "resumed"},
    {Alert::Category::battery, "battery"},
    {Alert::Category::thermal, "thermal"},
    {Alert::Category::network, "network"},
    {Alert::Category::stuck, "stuck"},
    {Alert::Category::sleep, "sleep"},
    {Alert::Category::system, "system"},
    {Alert::Category::approval, "approval"},
}};

constexpr EnumTable::Table<JournalEntry::Kind, 9> kJournalKindNames{{
    {JournalEntry::Kind::runStarted, "runStarted"},
    {JournalEntry::Kind::turnFinished, "turnFinished"},
    {JournalEntry::Kind::runEnded, "runEnded"},
    {JournalEntry::Kind::paused, "paused"},
    {JournalEntry::Kind::resumed, "resumed"},
    {JournalEntry::Kind::sleep, "sleep"},
    {JournalEntry::Kind::guardTripped, "guardTripped"},
    {JournalEntry::Kind::approval, "approval"},
    {JournalEntry::Kind::power, "power"},
}};

}  // namespace

// ---- Enumerations ------------------------------------------------------------

std::string_view toString(Alert::Level level) noexcept {
    return EnumTable::nameOf(kLevelNames, level);
}
std::optional<Alert::Level> parseAlertLevel(std::string_view text) noexcept {
    return EnumTable::lookup(kLevelNames, text);
}
std::string_view toString(Alert::Category category) noexcept {
    return EnumTable::nameOf(kCategoryNames, category);
}
std::optional<Alert::Category> parseAlertCategory(std::string_view text) noexcept {
    return EnumTable::lookup(kCategoryNames, text);
}
std::string_view toString(JournalEntry::Kind kind) noexcept {
    return EnumTable::nameOf(kJournalKindNames, kind);
}
std::optional<JournalEntry::Kind> parseJournalEntryKind(std::string_view text) noexcept {
    return EnumTable::lookup(kJournalKindNames, text);
}

void to_json(Json& j, Alert::Level level) {
    j = std::string(toString(level));
}
void from_json(const Json& j, Alert::Level& level) {
    level = TavraJSON::readEnum<Alert::Level>(j, parseAlertLevel, "Alert.Level");
}
void to_json(Json& j, Alert::Category category) {
    j = std::string(toString(category));
}
void from_json(const Json& j, Alert::Category& category) {
    category = TavraJSON::readEnum<Alert::Category>(j, parseAlertCategory, "Alert.Category");
}
void to_json(Json& j, JournalEntry::Kind kind) {
    j = std::string(toString(kind));
}
void from_json(const Json& j, JournalEntry::Kind& kind) {
    kind = TavraJSON::readEnum<JournalEntry::Kind>(j, parseJournalEntryKind, "JournalEntry.Kind");
}

// ---- Records -----------------------------------------------------------------

void to_json(Json& j, const AlertAction& a) {
    j = Json{{"label", a.label}, {"command", a.command}};
}

void from_json(const Json& j, AlertAction& a) {
    TavraJSON::requireObject(j, "AlertAction");
    a.label = required<std::string>(j, "label");
    a.command = required<std::string>(j, "command");
}

void to_json(Json& j, const Alert& a) {
    j = Json{{"id", a.id},       {"title", a.title},       {"body", a.body},
             {"level", a.level}, {"category", a.category}, {"actions", a.actions}};
    setOptional(j, "run", a.run);
    setOptional(j, "workSeconds", a.workSeconds);
}

void from_json(const Json& j, Alert& a) {
    TavraJSON::requireObject(j, "Alert");
    a.id = required<std::string>(j, "id");
    a.title = required<std::string>(j, "title");
    a.body = required<std::string>(j, "body");
    a.level = required<Alert::Level>(j, "level");
    a.category = required<Alert::Category>(j, "category");
    a.run = optional<RunKey>(j, "run");
    a.actions = required<std::vector<AlertAction>>(j, "actions");
    a.workSeconds = optional<double>(j, "workSeconds");
}

void to_json(Json& j, const JournalEntry& e) {
    j = Json{{"date", e.date}, {"kind", e.kind}};
    setOptional(j, "run", e.run);
    setOptional(j, "cwd", e.cwd);
    setOptional(j, "reason", e.reason);
    setOptional(j, "detail", e.detail);
    setOptional(j, "workingSeconds", e.workingSeconds);
}

void from_json(const Json& j, JournalEntry& e) {
    TavraJSON::requireObject(j, "JournalEntry");
    e.date = required<Date>(j, "date");
    e.kind = required<JournalEntry::Kind>(j, "kind");
    e.run = optional<RunKey>(j, "run");
    e.cwd = optional<std::string>(j, "cwd");
    e.reason = optional<std::string>(j, "reason");
    e.detail = optional<std::string>(j, "detail");
    e.workingSeconds = optional<double>(j, "workingSeconds");
}

// ---- Effect, Decision --------------------------------------------------------

std::optional<RunKey> Effect::runKey() const {
    return std::visit(
        [](const auto& c) -> std::optional<RunKey> {
            using C = std::decay_t<decltype(c)>;
            if constexpr (std::is_same_v<C, Freeze> || std::is_same_v<C, Thaw>)
                return c.key;
            else if constexpr (std::is_same_v<C, Alert>)
                return c.alert.run;
            else if constexpr (std::is_same_v<C, Journal>)
                return c.entry.run;
            else
                return std::nullopt;
        },
        value);
}

std::string describe(const Effect& effect) {
    return std::visit(
        [](const auto& c) -> std::string {
            using C = std::decay_t<decltype(c)>;
            if constexpr (std::is_same_v<C, Effect::Freeze>) {
                return "freeze(" + c.key.description() + ", " + std::to_string(c.pid) + ")";
            } else if constexpr (std::is_same_v<C, Effect::Thaw>) {
                return "thaw(" + c.key.description() + ", " + std::to_string(c.pid) + ")";
            } else if constexpr (std::is_same_v<C, Effect::Notify>) {
                return "alert(" + TavraJSON::encode(Json(c.alert)) + ")";
            } else if constexpr (std::is_same_v<C, Effect::Journal>) {
                return "journal(" + TavraJSON::encode(Json(c.entry)) + ")";
            } else {
                return "sleepNow(" + c.reason + ")";
            }
        },
        effect.value);
}

std::vector<Alert> Decision::alerts() const {
    std::vector<Alert> out;
    for (const auto& e : effects)
        if (const auto* a = e.as<Effect::Notify>()) out.push_back(a->alert);
    return out;
}

// ---- UserCommand -------------------------------------------------------------

namespace {
constexpr auto kCommandNames = TavraJSON::unionNames<decltype(UserCommand::value)>(
    "pause", "resume", "forget", "stayAwake", "hold", "setEnabled", "sleepNow");
}  // namespace

void to_json(Json& j, const UserCommand::Pause& c) {
    j = Json::object();
    setOptional(j, "_0", c.key);
}
void from_json(const Json& j, UserCommand::Pause& c) {
    c.key = optional<RunKey>(j, "_0");
}
void to_json(Json& j, const UserCommand::Resume& c) {
    j = Json::object();
    setOptional(j, "_0", c.key);
}
void from_json(const Json& j, UserCommand::Resume& c) {
    c.key = optional<RunKey>(j, "_0");
}
void to_json(Json& j, const UserCommand::Forget& c) {
    j = TavraJSON::unlabelled(c.key);
}
void from_json(const Json& j, UserCommand::Forget& c) {
    c.key = required<RunKey>(j, "_0");
}
void to_json(Json& j, const UserCommand::StayAwake& c) {
    j = Json::object();
    setOptional(j, "until", c.until);
}
void from_json(const Json& j, UserCommand::StayAwake& c) {
    c.until = optional<Date>(j, "until");
}
void to_json(Json& j, const UserCommand::Hold& c) {
    j = Json::object();
    setOptional(j, "until", c.until);
    j["id"] = c.id;
}
void from_json(const Json& j, UserCommand::Hold& c) {
    c.id = required<std::string>(j, "id");
    c.until = optional<Date>(j, "until");
}
void to_json(Json& j, const UserCommand::SetEnabled& c) {
    j = TavraJSON::unlabelled(c.value);
}
void from_json(const Json& j, UserCommand::SetEnabled& c) {
    c.value = required<bool>(j, "_0");
}

void to_json(Json& j, const UserCommand& command) {
    j = TavraJSON::encodeUnion(command.value, kCommandNames);
}

void from_json(const Json& j, UserCommand& command) {
    command.value = TavraJSON::decodeUnion(j, kCommandNames);
}

}  // namespace tavra
