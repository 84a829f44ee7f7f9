// The network watcher on Linux: an rtnetlink socket subscribed to link,
// address and route changes wakes a thread "tavra.network", which then asks
// the kernel's routing for a way out.

#include "platform/NetworkMonitor.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <thread>

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include "kit/UniqueFd.h"

namespace tavra {

namespace {

// Nothing is ever sent to these: connecting a datagram socket only asks the
// routing table which way a packet would go.
constexpr const char* kProbeV4 = "1.1.1.1";
constexpr const char* kProbeV6 = "2606:4700:4700::1111";

// A route check is cheap; repeating it now and then also covers a netlink
// queue that overflowed and lost a change.
constexpr int kRecheckMillis = 30'000;

bool isLoopback(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) {
        const auto* v4 = reinterpret_cast<const sockaddr_in*>(&address);
        return (ntohl(v4->sin_addr.s_addr) >> 24) == 127;
    }
    if (address.ss_family == AF_INET6) {
        const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&address);
        return IN6_IS_ADDR_LOOPBACK(&v6->sin6_addr) != 0;
    }
    return false;
}

// Whether the kernel would route a datagram to `target`, from an address
// other than loopback.
bool routesTo(int family, const char* target) {
    UniqueFd fd(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd) return false;
    sockaddr_storage remote{};
    socklen_t length = 0;
    if (family == AF_INET) {
        auto* v4 = reinterpret_cast<sockaddr_in*>(&remote);
        v4->sin_family = AF_INET;
        v4->sin_port = htons(53);
        if (::inet_pton(AF_INET, target, &v4->sin_addr) != 1) return false;
        length = sizeof(sockaddr_in);
    } else {
        auto* v6 = reinterpret_cast<sockaddr_in6*>(&remote);
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(53);
        if (::inet_pton(AF_INET6, target, &v6->sin6_addr) != 1) return false;
        length = sizeof(sockaddr_in6);
    }
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&remote), length) != 0) return false;
    sockaddr_storage local{};
    socklen_t localLength = sizeof local;
    if (::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&local), &localLength) != 0) return false;
    return !isLoopback(local);
}

bool pathSatisfied() {
    return routesTo(AF_INET, kProbeV4) || routesTo(AF_INET6, kProbeV6);
}

UniqueFd openRouteSocket() {
    UniqueFd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    if (!fd) return fd;
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups =
        RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return UniqueFd();
    return fd;
}

// What the watcher thread uses. Shared with the thread, so that a thread
// left detached (see below) never reaches into a destroyed monitor.
struct WatchState {
    NetworkSensor* sensor;
    UniqueFd routes;
    UniqueFd wake;
};

void watch(const std::shared_ptr<WatchState>& state) {
    ::pthread_setname_np(::pthread_self(), "tavra.network");
    std::array<char, 16384> buffer{};
    bool changed = true;  // the first check follows the start at once
    for (;;) {
        if (changed) state->sensor->pathUpdated(pathSatisfied());
        std::array<pollfd, 2> fds = {pollfd{state->wake.get(), POLLIN, 0},
                                     pollfd{state->routes.get(), POLLIN, 0}};
        const nfds_t count = state->routes ? 2 : 1;
        const int ready = ::poll(fds.data(), count, kRecheckMillis);
        if (ready < 0 && errno != EINTR) return;
        if (fds[0].revents != 0) return;
        changed = ready >= 0;
        if (count == 2 && fds[1].revents != 0) {
            // One check for the whole burst of messages a change brings:
            // their content does not matter, only that something moved.
            for (;;) {
                const ssize_t got = ::recv(state->routes.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
                if (got < 0 && errno == EINTR) continue;
                if (got < 0 && errno == ENOBUFS) continue;  // lost messages: the check covers them
                if (got <= 0) break;
            }
        }
    }
}

class LinuxNetworkMonitor final : public NetworkSensor::Monitor {
public:
    explicit LinuxNetworkMonitor(std::shared_ptr<WatchState> state)
        : state_(std::move(state)), thread_([state = state_] { watch(state); }) {}

    ~LinuxNetworkMonitor() override {
        const std::uint64_t one = 1;
        while (::write(state_->wake.get(), &one, sizeof one) < 0 && errno == EINTR) {
        }
        // A change callback that destroys its own sensor runs on the watcher
        // thread itself: it cannot join itself. It is left to return into its
        // loop, which sees the wake-up before touching the sensor again.
        if (thread_.get_id() == std::this_thread::get_id()) {
            thread_.detach();
        } else if (thread_.joinable()) {
            thread_.join();
        }
    }

private:
    std::shared_ptr<WatchState> state_;
    std::thread thread_;
};

}  // namespace

namespace NetworkMonitorBackend {

std::unique_ptr<NetworkSensor::Monitor> start(NetworkSensor& sensor) noexcept {
    try {
        UniqueFd wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (!wake) return nullptr;
        // Without netlink (a sandbox that forbids it) the periodic check
        // still keeps the value roughly current.
        auto state = std::make_shared<WatchState>(WatchState{&sensor, openRouteSocket(), std::move(wake)});
        return std::make_unique<LinuxNetworkMonitor>(std::move(state));
    } catch (...) {
        return nullptr;
    }
}

}  // namespace NetworkMonitorBackend
}  // namespace tavra
