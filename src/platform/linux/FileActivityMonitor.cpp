#include "platform/FileActivityMonitor.h"

#include <dirent.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <cerrno>
#include <cstring>
#include <map>
#include <unordered_map>

namespace tavra {

namespace {

// What counts as a write under a directory: entries made, changed, touched,
// removed or renamed, and the directory itself going away.
constexpr std::uint32_t kChanges =
    IN_CREATE | IN_MODIFY | IN_ATTRIB | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF;
constexpr std::size_t kEventBuffer = 64 * 1024;

std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

std::string childPath(const std::string& directory, std::string_view name) {
    std::string path = directory;
    if (path.back() != '/') path.push_back('/');
    path.append(name);
    return path;
}

// Whether `path` is `directory` or lies below it.
bool isUnder(const std::string& path, const std::string& directory) {
    if (path.compare(0, directory.size(), directory) != 0) return false;
    return path.size() == directory.size() || directory.back() == '/' || path[directory.size()] == '/';
}

bool isDirectory(const std::string& path, const dirent& entry) {
    if (entry.d_type == DT_DIR) return true;
    if (entry.d_type != DT_UNKNOWN) return false;  // symbolic links are never followed
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

struct FileActivityMonitor::Impl : std::enable_shared_from_this<Impl> {
    struct Directory {
        std::string path;
        std::size_t users = 0;  // roots whose walk reached it; overlapping roots share a watch
    };
    struct Root {
        std::string top;  // the root without trailing slashes
        int topWatch = -1;
        std::set<int> watches;
        bool limited = false;  // only the top directory is watched
        ActivityPacer pacer;
        std::unique_ptr<asio::steady_timer> timer;
    };

    Impl(asio::io_context& context_, Handler handler_, Logger logger_)
        : context(context_), handler(std::move(handler_)), logger(std::move(logger_)), inotify(context_) {
        int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        std::error_code error;
        if (fd >= 0) inotify.assign(fd, error);
        if (fd >= 0 && error) ::close(fd);
    }

    asio::io_context& context;
    Handler handler;
    Logger logger;
    asio::posix::stream_descriptor inotify;
    bool reading = false;
    bool stopped = false;
    std::unordered_map<int, Directory> directories;  // by watch descriptor
    std::map<std::string, Root> roots;
    alignas(inotify_event) char buffer[kEventBuffer];

    void watch(const std::string& key);
    bool walk(const std::string& key, Root& root, const std::string& from);
    void limit(Root& root);
    void release(Root& root, int watch);
    void forget(int watch);
    void read();
    void handle(std::size_t size);
    void pace(const std::string& key);
    void call(const std::string& key);
    void log(const std::string& line);
    void stop();
};

void FileActivityMonitor::Impl::watch(const std::string& key) {
    if (stopped || !inotify.is_open() || roots.count(key) != 0) return;
    struct stat status {};
    if (key.empty() || ::stat(key.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return;
    auto& root = roots[key];
    root.top = withoutTrailingSlashes(key);
    root.timer = std::make_unique<asio::steady_timer>(context);
    if (!walk(key, root, root.top)) {
        roots.erase(key);
        return;
    }
    if (!reading) {
        reading = true;
        read();
    }
}

// Adds a watch to `from` and every directory below it, depth first, without
// entering noise directories. A watch is added before its directory is
// listed, so a subdirectory made during the listing is reported by an event
// if the listing misses it. False only when `from` is the root's top and it
// could not be watched.
bool FileActivityMonitor::Impl::walk(const std::string& key, Root& root, const std::string& from) {
    std::vector<std::string> pending{from};
    while (!pending.empty()) {
        std::string path = std::move(pending.back());
        pending.pop_back();
        bool top = path == root.top;
        // The top may be a symbolic link to the project; nothing below it is followed.
        std::uint32_t flags = kChanges | IN_ONLYDIR | IN_EXCL_UNLINK | (top ? 0u : IN_DONT_FOLLOW);
        int watch = ::inotify_add_watch(inotify.native_handle(), path.c_str(), flags);
        if (watch < 0) {
            if (top) return false;
            if (errno == ENOSPC || errno == ENOMEM) {
                log("file watches exhausted: watching only the top directory of " + key);
                limit(root);
                return true;
            }
            continue;  // vanished or unreadable: nothing to watch there
        }
        if (top) root.topWatch = watch;
        if (root.watches.insert(watch).second) {
            auto& directory = directories[watch];
            directory.path = path;
            ++directory.users;
        }
        if (root.limited) continue;
        std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(path.c_str()), ::closedir);
        if (!listing) continue;
        while (const dirent* entry = ::readdir(listing.get())) {
            std::string_view name(entry->d_name);
            if (name == "." || name == ".." || FileActivityRules::isNoise(name)) continue;
            auto child = childPath(path, name);
            if (isDirectory(child, *entry)) pending.push_back(std::move(child));
        }
    }
    return true;
}

void FileActivityMonitor::Impl::limit(Root& root) {
    root.limited = true;
    auto watches = root.watches;
    for (int watch : watches)
        if (watch != root.topWatch) release(root, watch);
}

void FileActivityMonitor::Impl::release(Root& root, int watch) {
    root.watches.erase(watch);
    auto found = directories.find(watch);
    if (found == directories.end() || --found->second.users > 0) return;
    ::inotify_rm_watch(inotify.native_handle(), watch);
    directories.erase(found);
}

// The kernel dropped the watch (its directory is gone) or we are about to.
void FileActivityMonitor::Impl::forget(int watch) {
    for (auto& [key, root] : roots) {
        root.watches.erase(watch);
        if (root.topWatch == watch) root.topWatch = -1;
    }
    directories.erase(watch);
}

void FileActivityMonitor::Impl::read() {
    if (stopped) return;
    inotify.async_read_some(asio::buffer(buffer),
                            [self = shared_from_this()](const std::error_code& error, std::size_t size) {
                                if (self->stopped) return;
                                if (error) {
                                    if (error != asio::error::operation_aborted)
                                        self->log("file events unreadable: " + error.message());
                                    return;
                                }
                                self->handle(size);
                                self->read();
                            });
}

// One read is one batch: each root is paced at most once for it, however
// many of its paths changed.
void FileActivityMonitor::Impl::handle(std::size_t size) {
    std::set<std::string> changed;
    std::vector<std::pair<std::string, std::string>> newDirectories;  // root, path
    bool overflowed = false;
    for (std::size_t offset = 0; offset + sizeof(inotify_event) <= size;) {
        inotify_event event{};
        std::memcpy(&event, buffer + offset, sizeof event);
        const char* namePointer = buffer + offset + sizeof event;
        std::string_view name(namePointer, ::strnlen(namePointer, event.len));
        offset += sizeof event + event.len;
        if (event.mask & IN_Q_OVERFLOW) {
            overflowed = true;
            continue;
        }
        auto found = directories.find(event.wd);
        if (found == directories.end()) continue;
        if (event.mask & IN_IGNORED) {
            forget(event.wd);
            continue;
        }
        const std::string directory = found->second.path;
        const std::string path = name.empty() ? directory : childPath(directory, name);
        const bool isNewDirectory = (event.mask & IN_ISDIR) && (event.mask & (IN_CREATE | IN_MOVED_TO));
        for (auto& [key, root] : roots) {
            if (!isUnder(directory, root.top) || !FileActivityRules::counts(key, path)) continue;
            changed.insert(key);
            if (isNewDirectory && !root.limited) newDirectories.emplace_back(key, path);
        }
        // A directory moved away keeps its watches under a path that no
        // longer holds; drop them, and its new place is walked afresh.
        if ((event.mask & IN_ISDIR) && (event.mask & IN_MOVED_FROM)) {
            std::vector<int> moved;
            for (const auto& [watch, entry] : directories)
                if (isUnder(entry.path, path)) moved.push_back(watch);
            for (int watch : moved) {
                ::inotify_rm_watch(inotify.native_handle(), watch);
                forget(watch);
            }
        }
    }
    if (overflowed) {
        // Events were lost, so something certainly happened; with the queue
        // this far behind, a watch per directory is more than can be kept up.
        bool any = false;
        for (auto& [key, root] : roots) {
            changed.insert(key);
            if (!root.limited) any = true;
            limit(root);
        }
        if (any) log("file events overflowed: watching only the top directory of each root");
    }
    for (const auto& [key, path] : newDirectories) {
        auto found = roots.find(key);
        if (found != roots.end() && !found->second.limited) walk(key, found->second, path);
    }
    for (const auto& key : changed) pace(key);
}

void FileActivityMonitor::Impl::pace(const std::string& key) {
    auto found = roots.find(key);
    if (stopped || found == roots.end()) return;
    auto& root = found->second;
    auto now = ActivityPacer::Clock::now();
    auto when = root.pacer.changed(now);
    if (!when) return;
    if (*when <= now) {
        root.pacer.called(now);
        call(key);
        return;
    }
    root.timer->expires_at(*when);
    root.timer->async_wait([self = shared_from_this(), key](const std::error_code& error) {
        auto again = self->roots.find(key);
        if (error || self->stopped || again == self->roots.end()) return;
        again->second.pacer.called(ActivityPacer::Clock::now());
        self->call(key);
    });
}

void FileActivityMonitor::Impl::call(const std::string& key) {
    auto copy = handler;  // the handler may end the monitor, and with it `handler`
    if (!copy) return;
    try {
        copy(key);
    } catch (...) {
    }
}

void FileActivityMonitor::Impl::log(const std::string& line) {
    if (!logger) return;
    try {
        logger(line);
    } catch (...) {
    }
}

void FileActivityMonitor::Impl::stop() {
    stopped = true;
    handler = nullptr;
    logger = nullptr;
    roots.clear();  // cancels the pending calls
    directories.clear();
    std::error_code ignored;
    inotify.close(ignored);  // and with it every watch
}

FileActivityMonitor::FileActivityMonitor(asio::io_context& context, Handler handler, Logger logger)
    : impl_(std::make_shared<Impl>(context, std::move(handler), std::move(logger))) {}

FileActivityMonitor::~FileActivityMonitor() {
    impl_->stop();
}

void FileActivityMonitor::watch(const std::string& root) {
    try {
        impl_->watch(root);
    } catch (...) {  // only memory can run out here; the root stays unwatched
        unwatch(root);
    }
}

void FileActivityMonitor::unwatch(const std::string& root) {
    auto found = impl_->roots.find(root);
    if (found == impl_->roots.end()) return;
    auto watches = found->second.watches;
    for (int watch : watches) impl_->release(found->second, watch);
    impl_->roots.erase(found);
}

std::set<std::string> FileActivityMonitor::watchedRoots() const {
    std::set<std::string> keys;
    for (const auto& entry : impl_->roots) keys.insert(entry.first);
    return keys;
}

std::size_t FileActivityMonitor::watchCount() const noexcept {
    return impl_->directories.size();
}

}  // namespace tavra
