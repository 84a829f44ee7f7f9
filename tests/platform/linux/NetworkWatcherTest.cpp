// The real network watcher. The change test runs in a private network
// namespace of its own thread, so it never touches the machine's interfaces;
// it is skipped where namespaces cannot be made.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include "platform/Sensors.h"
#include "platform/Shell.h"

namespace tavra {
namespace {

using namespace std::chrono_literals;

// Values from the watcher thread, waited for with a generous limit.
struct Recorder {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<bool> values;

    void add(bool value) {
        std::lock_guard guard(mutex);
        values.push_back(value);
        changed.notify_all();
    }
    // Waits until the values recorded so far end with `tail`.
    bool waitForEnding(const std::vector<bool>& tail) {
        std::unique_lock guard(mutex);
        return changed.wait_for(guard, 30s, [&] {
            return values.size() >= tail.size() && std::equal(tail.rbegin(), tail.rend(), values.rbegin());
        });
    }
};

constexpr const char* kIp = "/usr/sbin/ip";

TEST(NetworkWatcher, FollowsRoutesAppearingAndDisappearing) {
    if (::access(kIp, X_OK) != 0) GTEST_SKIP() << "iproute2 is not installed";
    bool skipped = false;
    std::vector<bool> seen;
    std::string failure;
    std::thread isolated([&] {
        if (::unshare(CLONE_NEWNET) != 0) return void(skipped = true);
        Recorder recorder;
        {
            // A fresh namespace has nothing but a loopback that is down. The
            // first update may come before the callback is set, so the value
            // is watched here; the callback must see every change after it.
            NetworkSensor sensor;
            sensor.setOnChange([&](bool value) { recorder.add(value); });
            for (auto end = std::chrono::steady_clock::now() + 30s;
                 sensor.isReachable() && std::chrono::steady_clock::now() < end;)
                std::this_thread::sleep_for(5ms);
            if (sensor.isReachable()) return void(failure = "still reachable in a namespace without routes");
            for (const auto& step : std::vector<std::vector<std::string>>{
                     {"link", "add", "tv0", "type", "veth", "peer", "name", "tv1"},
                     {"link", "set", "tv1", "up"},
                     {"addr", "add", "10.77.0.2/24", "dev", "tv0"},
                     {"link", "set", "tv0", "up"},
                     {"route", "add", "default", "via", "10.77.0.1", "dev", "tv0"},
                 }) {
                const auto result = Shell::run(kIp, step);
                if (!result.ok())
                    return void(failure = "ip " + Shell::commandLine("", step) + ": " + result.stderr);
            }
            if (!recorder.waitForEnding({true}))
                return void(failure = "no update after the default route appeared");
            Shell::run(kIp, {"route", "del", "default"});
            if (!recorder.waitForEnding({true, false}))
                failure = "no update after the default route went away";
        }
        // Without a leading false, which the callback may or may not have
        // seen depending on when it was set.
        std::lock_guard guard(recorder.mutex);
        seen = recorder.values;
        if (!seen.empty() && !seen.front()) seen.erase(seen.begin());
    });
    isolated.join();
    if (skipped) GTEST_SKIP() << "no permission to create a network namespace";
    ASSERT_EQ(failure, "");
    EXPECT_EQ(seen, (std::vector<bool>{true, false}));
}

}  // namespace
}  // namespace tavra
