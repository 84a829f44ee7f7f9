// The file activity monitor on macOS: one FSEvents stream per root on the
// serial queue "tavra.fsevents", with the stream's own 2-second latency doing
// the pacing; the filter is the shared rule, and a batch that counts is
// posted to the owner's context.

#include <CoreServices/CoreServices.h>
#include <dispatch/dispatch.h>
#include <sys/stat.h>

#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <map>
#include <type_traits>

#include "platform/FileActivityMonitor.h"

namespace tavra {

namespace {

constexpr CFTimeInterval kLatencySeconds = ActivityPacer::kIntervalSeconds;
// Paths as strings, the first event of a quiet spell at once, file-level events.
constexpr FSEventStreamCreateFlags kStreamFlags =
    kFSEventStreamCreateFlagUseCFTypes | kFSEventStreamCreateFlagNoDefer | kFSEventStreamCreateFlagFileEvents;

struct StreamCloser {
    void operator()(FSEventStreamRef stream) const noexcept {
        FSEventStreamStop(stream);
        FSEventStreamInvalidate(stream);
        FSEventStreamRelease(stream);
    }
};
using Stream = std::unique_ptr<std::remove_pointer_t<FSEventStreamRef>, StreamCloser>;

struct CFReleaser {
    void operator()(CFTypeRef object) const noexcept { CFRelease(object); }
};
template <class T>
using CFOwned = std::unique_ptr<std::remove_pointer_t<T>, CFReleaser>;

std::string utf8(CFStringRef text) {
    if (const char* direct = CFStringGetCStringPtr(text, kCFStringEncodingUTF8)) return direct;
    CFIndex size = CFStringGetMaximumSizeForEncoding(CFStringGetLength(text), kCFStringEncodingUTF8) + 1;
    std::string buffer(static_cast<std::size_t>(size), '\0');
    if (!CFStringGetCString(text, buffer.data(), size, kCFStringEncodingUTF8)) return {};
    buffer.resize(std::char_traits<char>::length(buffer.c_str()));
    return buffer;
}

// Whether the monitor still wants calls for a root. Set and read on the
// owner's context only.
struct Token {
    bool alive = true;
    FileActivityMonitor::Impl* impl = nullptr;
};

// What a stream's callback reads on the queue; immutable while the stream lives.
struct Watch {
    std::string root;
    asio::io_context* context;
    std::shared_ptr<Token> token;
};

void callOnContext(const std::shared_ptr<Token>& token, const std::string& root);

void onEvents(ConstFSEventStreamRef, void* info, size_t count, void* eventPaths,
              const FSEventStreamEventFlags*, const FSEventStreamEventId*) {
    const auto* watch = static_cast<const Watch*>(info);
    if (watch == nullptr || count == 0) return;
    try {
        auto array = static_cast<CFArrayRef>(eventPaths);
        std::vector<std::string> paths;
        for (CFIndex i = 0; i < static_cast<CFIndex>(count); ++i) {
            CFTypeRef item = CFArrayGetValueAtIndex(array, i);
            if (item != nullptr && CFGetTypeID(item) == CFStringGetTypeID())
                paths.push_back(utf8(static_cast<CFStringRef>(item)));
        }
        if (!FileActivityRules::batchCounts(watch->root, paths)) return;
        asio::post(*watch->context,
                   [token = watch->token, root = watch->root] { callOnContext(token, root); });
    } catch (...) {
    }
}

}  // namespace

struct FileActivityMonitor::Impl {
    struct Entry {
        std::unique_ptr<Watch> watch;  // outlives its stream
        Stream stream;
    };

    Impl(asio::io_context& context_, Handler handler_)
        : context(context_),
          handler(std::move(handler_)),
          queue(dispatch_queue_create("tavra.fsevents", DISPATCH_QUEUE_SERIAL)) {}
    ~Impl() {
        for (auto& [root, entry] : watches) entry.watch->token->alive = false;
        watches.clear();
        dispatch_release(queue);
    }

    asio::io_context& context;
    Handler handler;
    dispatch_queue_t queue;
    std::map<std::string, Entry> watches;

    // Stops the stream, then lets any callback still running on the queue
    // finish before its Watch goes.
    void drop(std::map<std::string, Entry>::iterator found) {
        found->second.watch->token->alive = false;
        found->second.stream.reset();
        dispatch_sync_f(queue, nullptr, [](void*) {});
        watches.erase(found);
    }

    void call(const std::string& root) {
        auto copy = handler;  // the handler may end the monitor
        if (!copy) return;
        try {
            copy(root);
        } catch (...) {
        }
    }
};

namespace {
void callOnContext(const std::shared_ptr<Token>& token, const std::string& root) {
    if (token->alive) token->impl->call(root);
}
}  // namespace

FileActivityMonitor::FileActivityMonitor(asio::io_context& context, Handler handler, Logger)
    : impl_(std::make_shared<Impl>(context, std::move(handler))) {}

FileActivityMonitor::~FileActivityMonitor() {
    while (!impl_->watches.empty()) impl_->drop(impl_->watches.begin());
}

void FileActivityMonitor::watch(const std::string& root) {
    struct stat status {};
    if (impl_->watches.count(root) != 0 || ::stat(root.c_str(), &status) != 0) return;
    try {
        auto watch = std::make_unique<Watch>(Watch{root, &impl_->context, std::make_shared<Token>()});
        watch->token->impl = impl_.get();
        CFOwned<CFStringRef> path(CFStringCreateWithCString(nullptr, root.c_str(), kCFStringEncodingUTF8));
        if (!path) return;
        const void* values[] = {path.get()};
        CFOwned<CFArrayRef> paths(CFArrayCreate(nullptr, values, 1, &kCFTypeArrayCallBacks));
        if (!paths) return;
        FSEventStreamContext context{0, watch.get(), nullptr, nullptr, nullptr};
        Stream stream(FSEventStreamCreate(nullptr, &onEvents, &context, paths.get(),
                                          kFSEventStreamEventIdSinceNow, kLatencySeconds, kStreamFlags));
        if (!stream) return;
        FSEventStreamSetDispatchQueue(stream.get(), impl_->queue);
        if (!FSEventStreamStart(stream.get())) {
            FSEventStreamInvalidate(stream.get());
            FSEventStreamRelease(stream.release());
            return;
        }
        impl_->watches.emplace(root, Impl::Entry{std::move(watch), std::move(stream)});
    } catch (...) {
    }
}

void FileActivityMonitor::unwatch(const std::string& root) {
    auto found = impl_->watches.find(root);
    if (found != impl_->watches.end()) impl_->drop(found);
}

std::set<std::string> FileActivityMonitor::watchedRoots() const {
    std::set<std::string> roots;
    for (const auto& entry : impl_->watches) roots.insert(entry.first);
    return roots;
}

std::size_t FileActivityMonitor::watchCount() const noexcept {
    return impl_->watches.size();
}

}  // namespace tavra
