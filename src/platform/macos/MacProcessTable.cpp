// The process table of macOS, read through libproc. Only fetches values; every
// decision lives in the shared code of Processes.cpp.
#include <libproc.h>
#include <signal.h>
#include <sys/proc_info.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/Processes.h"

namespace tavra {

namespace {

class MacProcessTable final : public ProcessTable {
public:
    std::vector<Pid> allPIDs() const override {
        std::vector<Pid> pids;
        int count = proc_listallpids(nullptr, 0);
        if (count < 1) return pids;
        // Room for processes born between the two calls.
        std::vector<int> buffer(static_cast<std::size_t>(count) + 64);
        int got = proc_listallpids(buffer.data(), static_cast<int>(buffer.size() * sizeof(int)));
        if (got < 1) return pids;
        std::size_t n = std::min(buffer.size(), static_cast<std::size_t>(got));
        for (std::size_t i = 0; i < n; ++i) {
            if (buffer[i] > 0) pids.push_back(buffer[i]);
        }
        return pids;
    }

    std::optional<ProcessRow> row(Pid pid) const override {
        proc_bsdinfo info{};
        int size = proc_pidinfo(pid, PROC_PIDTBSDINFO, 0, &info, static_cast<int>(sizeof(info)));
        if (size != static_cast<int>(sizeof(info))) return std::nullopt;
        std::uint64_t token = info.pbi_start_tvsec * 1000000ULL + info.pbi_start_tvusec;
        return ProcessRow{pid, static_cast<Pid>(info.pbi_ppid), token};
    }

    std::optional<std::string> name(Pid pid) const override {
        char buffer[256] = {};
        int size = proc_name(pid, buffer, sizeof(buffer));
        if (size < 1) return std::nullopt;
        return std::string(buffer, static_cast<std::size_t>(size));
    }

    std::optional<std::string> path(Pid pid) const override {
        char buffer[PROC_PIDPATHINFO_MAXSIZE] = {};
        int size = proc_pidpath(pid, buffer, sizeof(buffer));
        if (size < 1) return std::nullopt;
        return std::string(buffer, static_cast<std::size_t>(size));
    }

    std::optional<std::string> cwd(Pid pid) const override {
        proc_vnodepathinfo info{};
        int size = proc_pidinfo(pid, PROC_PIDVNODEPATHINFO, 0, &info, static_cast<int>(sizeof(info)));
        if (size != static_cast<int>(sizeof(info))) return std::nullopt;
        return std::string(info.pvi_cdir.vip_path);
    }

    // KERN_PROCARGS2 gives argc, the executable's path, padding NULs, then
    // the arguments, each ended by a NUL, then the environment.
    std::optional<std::vector<std::string>> arguments(Pid pid) const override {
        if (pid <= 0) return std::nullopt;
        int mib[3] = {CTL_KERN, KERN_PROCARGS2, pid};
        std::size_t size = 0;
        if (::sysctl(mib, 3, nullptr, &size, nullptr, 0) != 0 || size < sizeof(int)) return std::nullopt;
        std::vector<char> buffer(size);
        if (::sysctl(mib, 3, buffer.data(), &size, nullptr, 0) != 0 || size < sizeof(int))
            return std::nullopt;
        int argc = 0;
        std::memcpy(&argc, buffer.data(), sizeof(argc));
        std::size_t at = sizeof(argc);
        while (at < size && buffer[at] != '\0') ++at;  // the executable's path
        while (at < size && buffer[at] == '\0') ++at;  // padding
        std::vector<std::string> words;
        while (at < size && static_cast<int>(words.size()) < argc) {
            std::size_t end = at;
            while (end < size && buffer[end] != '\0') ++end;
            words.emplace_back(buffer.data() + at, end - at);
            at = end + 1;
        }
        if (words.empty()) return std::nullopt;
        return words;
    }

    bool isAlive(Pid pid) const override {
        if (pid <= 0) return false;
        return ::kill(pid, 0) == 0 || errno == EPERM;
    }

    Pid ownPID() const override { return ::getpid(); }
    Pid ownParent() const override { return ::getppid(); }

    bool sendSignal(Pid pid, int signal, std::uint64_t startToken) const override {
        if (pid <= 0) return false;
        // Without pidfds, the start time narrows the window in which a reused
        // identifier could receive the signal.
        if (startToken != 0) {
            auto current = row(pid);
            if (!current || current->startToken != startToken) return false;
        }
        return ::kill(pid, signal) == 0;
    }
};

}  // namespace

const ProcessTable& systemProcessTable() {
    static const MacProcessTable table;
    return table;
}

}  // namespace tavra
