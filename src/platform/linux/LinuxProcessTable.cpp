// The process table of Linux, read from /proc; signals go through pidfds.
#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <string>

#include "kit/UniqueFd.h"
#include "platform/Processes.h"
#include "platform/linux/ProcStat.h"

namespace tavra {

namespace linux_proc {

namespace {

// The next blank-separated field of `rest`, which is advanced past it.
std::string_view nextField(std::string_view& rest) {
    auto begin = rest.find_first_not_of(' ');
    if (begin == std::string_view::npos) {
        rest = {};
        return {};
    }
    rest.remove_prefix(begin);
    auto end = rest.find(' ');
    std::string_view field = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end);
    return field;
}

template <typename T>
std::optional<T> number(std::string_view text) {
    T value{};
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || ptr != text.data() + text.size() || text.empty()) return std::nullopt;
    return value;
}

}  // namespace

std::optional<ProcStat> parseProcStat(std::string_view text) {
    auto open = text.find('(');
    auto close = text.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
        return std::nullopt;
    }
    ProcStat stat;
    stat.name = std::string(text.substr(open + 1, close - open - 1));
    std::string_view rest = text.substr(close + 1);
    if (!rest.empty() && rest.back() == '\n') rest.remove_suffix(1);

    // After the name: state (field 3), ppid (4), ..., starttime (22).
    std::string_view state = nextField(rest);
    if (state.size() != 1) return std::nullopt;
    stat.state = state.front();
    auto parent = number<Pid>(nextField(rest));
    if (!parent) return std::nullopt;
    stat.parent = *parent;
    for (int field = 5; field < 22; ++field) {
        if (nextField(rest).empty()) return std::nullopt;
    }
    auto start = number<std::uint64_t>(nextField(rest));
    if (!start) return std::nullopt;
    stat.startTime = *start;
    return stat;
}

std::string stripDeleted(std::string path) {
    constexpr std::string_view kDeleted = " (deleted)";
    if (path.ends_with(kDeleted)) path.resize(path.size() - kDeleted.size());
    return path;
}

}  // namespace linux_proc

namespace {

std::string procPath(Pid pid, const char* leaf) {
    return "/proc/" + std::to_string(pid) + "/" + leaf;
}

std::optional<std::string> readSmallFile(const std::string& path) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) return std::nullopt;
    std::string text;
    std::array<char, 1024> buffer{};
    for (;;) {
        ssize_t n = ::read(fd.get(), buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) break;
        text.append(buffer.data(), static_cast<std::size_t>(n));
    }
    return text;
}

std::optional<std::string> readLink(const std::string& path) {
    std::array<char, 4096> buffer{};
    ssize_t n = ::readlink(path.c_str(), buffer.data(), buffer.size());
    if (n <= 0 || static_cast<std::size_t>(n) >= buffer.size()) return std::nullopt;
    return linux_proc::stripDeleted(std::string(buffer.data(), static_cast<std::size_t>(n)));
}

std::optional<linux_proc::ProcStat> readStat(Pid pid) {
    if (pid <= 0) return std::nullopt;
    auto text = readSmallFile(procPath(pid, "stat"));
    if (!text) return std::nullopt;
    return linux_proc::parseProcStat(*text);
}

bool isGone(char state) {
    return state == 'Z' || state == 'X' || state == 'x';
}

int pidfdOpen(Pid pid) {
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0U));
}

int pidfdSendSignal(int pidfd, int signal) {
    return static_cast<int>(::syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0U));
}

// The process now under `pid` is the one `token` was read from.
bool stillSame(Pid pid, std::uint64_t token) {
    if (token == 0) return true;
    auto stat = readStat(pid);
    return stat && stat->startTime == token;
}

class LinuxProcessTable final : public ProcessTable {
public:
    std::vector<Pid> allPIDs() const override {
        std::vector<Pid> pids;
        DIR* dir = ::opendir("/proc");
        if (dir == nullptr) return pids;
        while (const dirent* entry = ::readdir(dir)) {
            std::string_view name(entry->d_name);
            Pid pid = 0;
            auto [ptr, ec] = std::from_chars(name.data(), name.data() + name.size(), pid);
            if (ec == std::errc() && ptr == name.data() + name.size() && pid > 0) pids.push_back(pid);
        }
        ::closedir(dir);
        return pids;
    }

    std::optional<ProcessRow> row(Pid pid) const override {
        auto stat = readStat(pid);
        if (!stat) return std::nullopt;
        return ProcessRow{pid, stat->parent, stat->startTime};
    }

    std::optional<std::string> name(Pid pid) const override {
        auto stat = readStat(pid);
        if (!stat) return std::nullopt;
        return stat->name;
    }

    std::optional<std::string> path(Pid pid) const override {
        if (pid <= 0) return std::nullopt;
        return readLink(procPath(pid, "exe"));
    }

    std::optional<std::string> cwd(Pid pid) const override {
        if (pid <= 0) return std::nullopt;
        return readLink(procPath(pid, "cwd"));
    }

    std::optional<std::vector<std::string>> arguments(Pid pid) const override {
        if (pid <= 0) return std::nullopt;
        auto text = readSmallFile(procPath(pid, "cmdline"));
        // A kernel thread or a zombie has an empty command line.
        if (!text || text->empty()) return std::nullopt;
        std::vector<std::string> words;
        std::size_t start = 0;
        while (start < text->size()) {
            std::size_t end = text->find('\0', start);
            if (end == std::string::npos) end = text->size();
            words.emplace_back(*text, start, end - start);
            start = end + 1;
        }
        return words;
    }

    bool isAlive(Pid pid) const override {
        if (pid <= 0) return false;
        if (::kill(pid, 0) != 0 && errno != EPERM) return false;
        // A zombie still answers kill(pid, 0) but will never run again.
        auto stat = readStat(pid);
        return !stat || !isGone(stat->state);
    }

    std::size_t nameLimit() const override { return 15; }

    Pid ownPID() const override { return ::getpid(); }
    Pid ownParent() const override { return ::getppid(); }

    bool sendSignal(Pid pid, int signal, std::uint64_t startToken) const override {
        if (pid <= 0) return false;
        // A pidfd pins one process: once it is open, a signal through it can
        // no longer reach a newcomer that took over the number. Checking the
        // start time after opening makes sure the pinned process is the one
        // the caller saw.
        UniqueFd pidfd(pidfdOpen(pid));
        if (pidfd.get() < 0) {
            if (errno == ESRCH) return false;
            // Kernels before 5.3 and some sandboxes refuse pidfds.
            if (!stillSame(pid, startToken)) return false;
            return ::kill(pid, signal) == 0;
        }
        if (!stillSame(pid, startToken)) return false;
        if (pidfdSendSignal(pidfd.get(), signal) == 0) return true;
        if (errno == ENOSYS) return ::kill(pid, signal) == 0;
        return false;
    }
};

}  // namespace

const ProcessTable& systemProcessTable() {
    static const LinuxProcessTable table;
    return table;
}

}  // namespace tavra
