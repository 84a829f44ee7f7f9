#pragma once

#include <map>
#include <mutex>
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

// A process table made up by the test: every process and its names are
// declared, signals are recorded and never sent anywhere.
class FakeProcessTable final : public ProcessTable {
public:
    struct Process {
        Pid parent = 1;
        std::optional<std::string> name;
        std::optional<std::string> path;
        std::optional<std::string> cwd;
        bool alive = true;
    };

    FakeProcessTable(Pid own = 5000, Pid ownParent = 4999) : own_(own), ownParent_(ownParent) {}

    // Adds (or replaces) a process; allPIDs lists them in the order added.
    FakeProcessTable& add(Pid pid, Process process);
    FakeProcessTable& add(Pid pid, Pid parent, std::string name, std::string path = "");
    void setNameLimit(std::size_t limit) { nameLimit_ = limit; }
    void remove(Pid pid);

    std::vector<SentSignal> sent() const;
    void clearSent();

    std::vector<Pid> allPIDs() const override;
    std::optional<ProcessRow> row(Pid pid) const override;
    std::optional<std::string> name(Pid pid) const override;
    std::optional<std::string> path(Pid pid) const override;
    std::optional<std::string> cwd(Pid pid) const override;
    bool isAlive(Pid pid) const override;
    std::size_t nameLimit() const override { return nameLimit_; }
    Pid ownPID() const override { return own_; }
    Pid ownParent() const override { return ownParent_; }
    bool sendSignal(Pid pid, int signal, std::uint64_t startToken) const override;

private:
    const Process* find(Pid pid) const;

    Pid own_;
    Pid ownParent_;
    std::size_t nameLimit_ = 0;
    std::vector<Pid> order_;
    std::map<Pid, Process> processes_;
    mutable std::mutex mutex_;
    mutable std::vector<SentSignal> sent_;
};

// The real process table, with every signal recorded before it is passed on.
// Signals to pids below 2, to this process or to its parent are recorded but
// never passed on, so a fault in the code under test cannot stop the machine.
class RecordingProcessTable final : public ProcessTable {
public:
    std::vector<SentSignal> sent() const;

    std::vector<Pid> allPIDs() const override;
    std::optional<ProcessRow> row(Pid pid) const override;
    std::optional<std::string> name(Pid pid) const override;
    std::optional<std::string> path(Pid pid) const override;
    std::optional<std::string> cwd(Pid pid) const override;
    bool isAlive(Pid pid) const override;
    std::size_t nameLimit() const override;
    Pid ownPID() const override;
    Pid ownParent() const override;
    bool sendSignal(Pid pid, int signal, std::uint64_t startToken) const override;

private:
    mutable std::mutex mutex_;
    mutable std::vector<SentSignal> sent_;
};

}  // namespace tavra::testing
