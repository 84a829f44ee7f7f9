#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tavra {

using Pid = std::int32_t;

// What the OS tells about one process in a single read: its parent and an
// opaque token that tells this process apart from a later one that reuses its
// identifier (the start time). A token of 0 means "unknown".
struct ProcessRow {
    Pid pid = 0;
    Pid parent = 0;
    std::uint64_t startToken = 0;

    bool operator==(const ProcessRow&) const = default;
};

// Raw access to the process table and to signals. Each OS backend fetches
// values and sends signals here and decides nothing; the walks, name matching
// and never-freeze rules are shared code built on top of it.
//
// Every operation is noexcept in spirit: a failed read gives an absent value,
// a failed signal gives false. Implementations keep no state between calls
// that would make them unsafe to use from several threads.
class ProcessTable {
public:
    virtual ~ProcessTable() = default;

    virtual std::vector<Pid> allPIDs() const = 0;
    // The parent and identity of `pid`; absent when it cannot be read (gone, or
    // not visible to us).
    virtual std::optional<ProcessRow> row(Pid pid) const = 0;
    // The kernel's short name of the process (which the OS may truncate, see
    // nameLimit()).
    virtual std::optional<std::string> name(Pid pid) const = 0;
    virtual std::optional<std::string> path(Pid pid) const = 0;
    virtual std::optional<std::string> cwd(Pid pid) const = 0;
    // The argument vector, argv[0] first, as the process left it (a process
    // may rewrite it). Absent when it cannot be read; a table that cannot
    // read it at all keeps this default.
    virtual std::optional<std::vector<std::string>> arguments(Pid) const { return std::nullopt; }
    // Exists and has not ended (a zombie has ended).
    virtual bool isAlive(Pid pid) const = 0;
    // The length at which the OS cuts short names, 0 when it never does. A
    // name exactly this long may be the beginning of a longer one.
    virtual std::size_t nameLimit() const { return 0; }

    virtual Pid ownPID() const = 0;
    virtual Pid ownParent() const = 0;

    // Sends `signal` to `pid`; true when it was delivered. When `startToken`
    // is not 0 the signal reaches the process only if it is still the one that
    // token was read from, never a newcomer that reuses the identifier.
    virtual bool sendSignal(Pid pid, int signal, std::uint64_t startToken) const = 0;
};

// The table of the machine we run on. Lives for the whole program.
const ProcessTable& systemProcessTable();

// Reads the process table. Every function works on a fresh read, keeps no
// state and never throws; any thread may call them. The overloads without a
// table use systemProcessTable().
namespace ProcessInfoReader {

std::vector<Pid> allPIDs();
std::optional<std::string> name(Pid pid);
std::optional<std::string> path(Pid pid);
std::optional<Pid> parent(Pid pid);
std::optional<std::string> cwd(Pid pid);
bool isAlive(Pid pid);

// Whether the process is one of `names`: its name or executable's base name is
// `n`, its base name is `n` followed by "-" and anything (a version), or its
// path holds the directory "/n/".
bool matches(Pid pid, const std::vector<std::string>& names);
bool matches(const ProcessTable& table, Pid pid, const std::vector<std::string>& names);

// The nearest ancestor of `from` (never `from` itself) that matches `names`,
// else the nearest that is not a mere shell wrapper; at most 12 levels up.
std::optional<Pid> findAgentAncestor(Pid from, const std::vector<std::string>& names);
std::optional<Pid> findAgentAncestor(const ProcessTable& table, Pid from,
                                     const std::vector<std::string>& names);

// Every process beneath `of` in one snapshot, depth-first with the last child
// first, each once, `of` itself excluded.
std::vector<Pid> descendants(Pid of);
std::vector<Pid> descendants(const ProcessTable& table, Pid of);

// The same walk, keeping each process's identity for signalling.
std::vector<ProcessRow> descendantRows(const ProcessTable& table, Pid of);

// The wrapper names that findAgentAncestor never takes as its fallback.
const std::set<std::string>& wrapperNames();

}  // namespace ProcessInfoReader

// Stops and continues whole process trees with SIGSTOP and SIGCONT. Never
// throws; stateless, so any thread may call it. No signal ever goes to a pid
// below 2, to this process or to its parent.
namespace ProcessFreezer {

// Process names that are never stopped: terminals, multiplexers, remote
// logins, the session and window system.
const std::set<std::string>& neverFreeze();

bool isFreezable(Pid pid);
bool isFreezable(const ProcessTable& table, Pid pid);

// Stops `root` first, then every descendant. Returns the processes actually
// stopped, `root` first when it was; empty when nothing was (root not
// freezable or not alive).
std::vector<Pid> freeze(Pid root);
std::vector<Pid> freeze(const ProcessTable& table, Pid root);

// Continues `alsoThaw` and the present descendants of `root`, then `root`
// last. Processes that are gone are passed over silently.
void thaw(Pid root, const std::vector<Pid>& alsoThaw);
void thaw(const ProcessTable& table, Pid root, const std::vector<Pid>& alsoThaw);

// Continues each of `pids` in order.
void thaw(const std::vector<Pid>& pids);
void thaw(const ProcessTable& table, const std::vector<Pid>& pids);

}  // namespace ProcessFreezer

}  // namespace tavra
