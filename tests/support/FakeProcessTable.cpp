#include "support/FakeProcessTable.h"

#include <algorithm>

namespace tavra::testing {

FakeProcessTable& FakeProcessTable::add(Pid pid, Process process) {
    if (!processes_.contains(pid)) order_.push_back(pid);
    processes_[pid] = std::move(process);
    return *this;
}

FakeProcessTable& FakeProcessTable::add(Pid pid, Pid parent, std::string name, std::string path) {
    Process process;
    process.parent = parent;
    process.name = std::move(name);
    if (!path.empty()) process.path = std::move(path);
    return add(pid, std::move(process));
}

void FakeProcessTable::remove(Pid pid) {
    processes_.erase(pid);
    order_.erase(std::remove(order_.begin(), order_.end(), pid), order_.end());
}

std::vector<SentSignal> FakeProcessTable::sent() const {
    std::lock_guard lock(mutex_);
    return sent_;
}

void FakeProcessTable::clearSent() {
    std::lock_guard lock(mutex_);
    sent_.clear();
}

const FakeProcessTable::Process* FakeProcessTable::find(Pid pid) const {
    auto it = processes_.find(pid);
    return it == processes_.end() ? nullptr : &it->second;
}

std::vector<Pid> FakeProcessTable::allPIDs() const {
    return order_;
}

std::optional<ProcessRow> FakeProcessTable::row(Pid pid) const {
    const Process* process = find(pid);
    if (process == nullptr) return std::nullopt;
    return ProcessRow{pid, process->parent, static_cast<std::uint64_t>(pid) + 100000};
}

std::optional<std::string> FakeProcessTable::name(Pid pid) const {
    const Process* process = find(pid);
    return process ? process->name : std::nullopt;
}

std::optional<std::string> FakeProcessTable::path(Pid pid) const {
    const Process* process = find(pid);
    return process ? process->path : std::nullopt;
}

std::optional<std::string> FakeProcessTable::cwd(Pid pid) const {
    const Process* process = find(pid);
    return process ? process->cwd : std::nullopt;
}

bool FakeProcessTable::isAlive(Pid pid) const {
    const Process* process = find(pid);
    return process != nullptr && process->alive;
}

bool FakeProcessTable::sendSignal(Pid pid, int signal, std::uint64_t) const {
    std::lock_guard lock(mutex_);
    sent_.push_back({pid, signal});
    return isAlive(pid);
}

std::vector<SentSignal> RecordingProcessTable::sent() const {
    std::lock_guard lock(mutex_);
    return sent_;
}

std::vector<Pid> RecordingProcessTable::allPIDs() const {
    return systemProcessTable().allPIDs();
}
std::optional<ProcessRow> RecordingProcessTable::row(Pid pid) const {
    return systemProcessTable().row(pid);
}
std::optional<std::string> RecordingProcessTable::name(Pid pid) const {
    return systemProcessTable().name(pid);
}
std::optional<std::string> RecordingProcessTable::path(Pid pid) const {
    return systemProcessTable().path(pid);
}
std::optional<std::string> RecordingProcessTable::cwd(Pid pid) const {
    return systemProcessTable().cwd(pid);
}
bool RecordingProcessTable::isAlive(Pid pid) const {
    return systemProcessTable().isAlive(pid);
}
std::size_t RecordingProcessTable::nameLimit() const {
    return systemProcessTable().nameLimit();
}
Pid RecordingProcessTable::ownPID() const {
    return systemProcessTable().ownPID();
}
Pid RecordingProcessTable::ownParent() const {
    return systemProcessTable().ownParent();
}

bool RecordingProcessTable::sendSignal(Pid pid, int signal, std::uint64_t startToken) const {
    {
        std::lock_guard lock(mutex_);
        sent_.push_back({pid, signal});
    }
    const auto& real = systemProcessTable();
    if (pid < 2 || pid == real.ownPID() || pid == real.ownParent()) return false;
    return real.sendSignal(pid, signal, startToken);
}

}  // namespace tavra::testing
