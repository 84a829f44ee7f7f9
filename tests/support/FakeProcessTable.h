#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/Processes.h"

namespace tavra::testing {

// One signal as a table was asked to send it.
struct SentSignal {
    Pid pid = 0;
    int signal = 0;
    bool operator==(const SentSignal&) const = default;
};

// Signals as a table was asked to send them.
class SignalLog {
public:
    std::vector<SentSignal> sent() const { return sent_; }

protected:
    void note(Pid pid, int signal) const { sent_.push_back({pid, signal}); }

private:
    mutable std::vector<SentSignal> sent_;
};

// A process table made up by the test: every process and its names are
// declared, signals are recorded and never sent anywhere.
class FakeProcessTable final : public ProcessTable, public SignalLog {
public:
    struct Process {
        Pid parent = 1;
        std::optional<std::string> name;
        std::optional<std::string> path;
        bool alive = true;
        bool refusesSignals = false;  // alive, but a signal fails as with EPERM
        std::optional<std::vector<std::string>> arguments;
    };

    FakeProcessTable(Pid own = 5000, Pid ownParent = 4999) : own_(own), ownParent_(ownParent) {}

    // Adds (or replaces) a process; allPIDs lists them in the order added.
    Process& add(Pid pid, Pid parent, std::optional<std::string> name,
                 std::optional<std::string> path = std::nullopt) {
        if (!processes_.contains(pid)) order_.push_back(pid);
        return processes_[pid] = Process{parent, std::move(name), std::move(path), true, false, std::nullopt};
    }
    void setNameLimit(std::size_t limit) { nameLimit_ = limit; }

    std::vector<Pid> allPIDs() const override { return order_; }
    std::optional<ProcessRow> row(Pid pid) const override {
        if (!find(pid)) return std::nullopt;
        return ProcessRow{pid, find(pid)->parent, static_cast<std::uint64_t>(pid) + 100000};
    }
    std::optional<std::string> name(Pid pid) const override {
        return find(pid) ? find(pid)->name : std::nullopt;
    }
    std::optional<std::string> path(Pid pid) const override {
        return find(pid) ? find(pid)->path : std::nullopt;
    }
    std::optional<std::string> cwd(Pid) const override { return std::nullopt; }
    std::optional<std::vector<std::string>> arguments(Pid pid) const override {
        return find(pid) ? find(pid)->arguments : std::nullopt;
    }
    bool isAlive(Pid pid) const override { return find(pid) && find(pid)->alive; }
    std::size_t nameLimit() const override { return nameLimit_; }
    Pid ownPID() const override { return own_; }
    Pid ownParent() const override { return ownParent_; }
    bool sendSignal(Pid pid, int signal, std::uint64_t) const override {
        if (onSignal) onSignal(pid, signal);
        note(pid, signal);
        return isAlive(pid) && !find(pid)->refusesSignals;
    }

    // Called with each signal before it is recorded, to look at the world at that moment.
    std::function<void(Pid, int)> onSignal;

private:
    const Process* find(Pid pid) const {
        auto it = processes_.find(pid);
        return it == processes_.end() ? nullptr : &it->second;
    }

    Pid own_;
    Pid ownParent_;
    std::size_t nameLimit_ = 0;
    std::vector<Pid> order_;
    std::map<Pid, Process> processes_;
};

// The real process table, with every signal recorded before it is passed on.
// Signals to pids below 2, to this process or to its parent are recorded but
// never passed on, so a fault in the code under test cannot stop the machine.
class RecordingProcessTable final : public ProcessTable, public SignalLog {
public:
    std::vector<Pid> allPIDs() const override { return real().allPIDs(); }
    std::optional<ProcessRow> row(Pid pid) const override { return real().row(pid); }
    std::optional<std::string> name(Pid pid) const override { return real().name(pid); }
    std::optional<std::string> path(Pid pid) const override { return real().path(pid); }
    std::optional<std::string> cwd(Pid pid) const override { return real().cwd(pid); }
    std::optional<std::vector<std::string>> arguments(Pid pid) const override {
        return real().arguments(pid);
    }
    bool isAlive(Pid pid) const override { return real().isAlive(pid); }
    std::size_t nameLimit() const override { return real().nameLimit(); }
    Pid ownPID() const override { return real().ownPID(); }
    Pid ownParent() const override { return real().ownParent(); }
    bool sendSignal(Pid pid, int signal, std::uint64_t startToken) const override {
        note(pid, signal);
        if (pid < 2 || pid == ownPID() || pid == ownParent()) return false;
        return real().sendSignal(pid, signal, startToken);
    }

private:
    static const ProcessTable& real() { return systemProcessTable(); }
};

}  // namespace tavra::testing
