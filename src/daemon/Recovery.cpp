#include "daemon/Recovery.h"

#include <csignal>
#include <exception>
#include <set>

namespace tavra {

void thawRecord(const ProcessTable& table, const FreezeRecord& record) noexcept {
    try {
        std::optional<std::uint64_t> rootToken;
        for (const auto& process : record.processes)
            if (process.pid == record.root) rootToken = process.startToken;
        const auto rootRow = table.row(record.root);
        const bool rootIsSame = rootToken && rootRow && rootRow->startToken == *rootToken;

        std::set<Pid> done;
        auto cont = [&](Pid pid, std::uint64_t token) {
            if (pid < 2 || pid == table.ownPID() || pid == table.ownParent() || pid == record.root) return;
            if (!done.insert(pid).second) return;
            table.sendSignal(pid, SIGCONT, token);
        };
        for (const auto& process : record.processes) cont(process.pid, process.startToken);
        // Children forked after the freeze were stopped with their parent's
        // state inherited; the live tree finds them.
        if (rootIsSame)
            for (const auto& row : ProcessInfoReader::descendantRows(table, record.root))
                cont(row.pid, row.startToken);
        if (rootIsSame && record.root >= 2 && record.root != table.ownPID() &&
            record.root != table.ownParent())
            table.sendSignal(record.root, SIGCONT, *rootToken);
    } catch (...) {
    }
}

int recover(const std::filesystem::path& stateFile, const ProcessTable& table, PowerController& power,
            Date now, const std::function<void(const std::string&)>& log) {
    auto state = StateFile::load(stateFile, now, log);
    int thawed = 0;
    for (const auto& record : state.frozen) {
        thawRecord(table, record);
        log("thawed " + record.run.description() + " (pid " + std::to_string(record.root) + ")");
        ++thawed;
    }
    if (thawed > 0) {
        state.frozen.clear();
        try {
            StateFile::save(state, stateFile);
        } catch (const std::exception& error) {
            log(std::string("cannot save the state: ") + error.what());
        }
    }
    power.restoreDefaults();
    log("released all holds");
    return thawed;
}

}  // namespace tavra
