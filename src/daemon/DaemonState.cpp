#include "daemon/DaemonState.h"

#include <exception>
#include <system_error>

#include "kit/AtomicFile.h"

namespace tavra {

using TavraJSON::optional;
using TavraJSON::required;
using TavraJSON::setOptional;

void to_json(Json& j, const FrozenProcess& value) {
    j = Json{{"pid", value.pid}, {"startToken", value.startToken}};
}

void from_json(const Json& j, FrozenProcess& value) {
    TavraJSON::requireObject(j, "FrozenProcess");
    value.pid = required<Pid>(j, "pid");
    value.startToken = required<std::uint64_t>(j, "startToken");
}

void to_json(Json& j, const FreezeRecord& value) {
    j = Json{{"run", value.run}, {"root", value.root}, {"processes", value.processes}};
}

void from_json(const Json& j, FreezeRecord& value) {
    TavraJSON::requireObject(j, "FreezeRecord");
    value.run = required<RunKey>(j, "run");
    value.root = required<Pid>(j, "root");
    value.processes = required<std::vector<FrozenProcess>>(j, "processes");
}

void to_json(Json& j, const DaemonState& value) {
    j = Json{{"runs", value.runs}, {"holds", value.holds}, {"frozen", value.frozen}};
    setOptional(j, "stayAwakeUntil", value.stayAwakeUntil);
}

void from_json(const Json& j, DaemonState& value) {
    TavraJSON::requireObject(j, "DaemonState");
    value.runs = required<std::vector<Run>>(j, "runs");
    value.stayAwakeUntil = optional<Date>(j, "stayAwakeUntil");
    value.holds = required<std::map<std::string, Date>>(j, "holds");
    value.frozen = required<std::vector<FreezeRecord>>(j, "frozen");
}

namespace StateFile {

DaemonState load(const std::filesystem::path& file, Date now,
                 const std::function<void(const std::string&)>& log) noexcept {
    try {
        auto bytes = readWholeFile(file);
        if (!bytes) return {};
        try {
            return TavraJSON::decode<DaemonState>(*bytes);
        } catch (const std::exception& error) {
            // Kept for inspection; the daemon goes on empty rather than not at all.
            auto aside = file;
            aside += ".damaged-" + std::to_string(static_cast<long long>(epochSeconds(now)));
            std::error_code ignored;
            std::filesystem::rename(file, aside, ignored);
            if (log)
                log("state file damaged (" + std::string(error.what()) + "), moved to " + aside.string());
        }
    } catch (...) {
    }
    return {};
}

void save(const DaemonState& state, const std::filesystem::path& file) {
    writeFileAtomically(file, TavraJSON::encodeValue(state), 0600);
}

}  // namespace StateFile

}  // namespace tavra
