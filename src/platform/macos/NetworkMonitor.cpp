// The network watcher on macOS: an nw_path_monitor on the serial queue
// "tavra.network"; a path counts when its status is satisfied.

#include <Network/Network.h>
#include <dispatch/dispatch.h>

#include <atomic>
#include <memory>

#include "platform/NetworkMonitor.h"

namespace tavra {

namespace {

// Tags the watcher's queue, so the destructor can tell whether it runs on it.
char kQueueKey;

// What the handlers reach. The sensor pointer is cleared before the monitor
// is cancelled: the handlers hold the sensor only weakly.
struct WatchState {
    std::atomic<NetworkSensor*> sensor;
};

class DarwinNetworkMonitor final : public NetworkSensor::Monitor {
public:
    explicit DarwinNetworkMonitor(NetworkSensor& sensor)
        : state_(std::make_shared<WatchState>()),
          queue_(dispatch_queue_create("tavra.network", DISPATCH_QUEUE_SERIAL)),
          cancelled_(dispatch_semaphore_create(0)),
          monitor_(nw_path_monitor_create()) {
        state_->sensor.store(&sensor);
        dispatch_queue_set_specific(queue_, &kQueueKey, &kQueueKey, nullptr);

        std::shared_ptr<WatchState> state = state_;
        nw_path_monitor_set_update_handler(monitor_, ^(nw_path_t path) {
          if (NetworkSensor* target = state->sensor.load()) {
              target->pathUpdated(nw_path_get_status(path) == nw_path_status_satisfied);
          }
        });
        // Outside ARC a block does not retain the dispatch objects it
        // captures: the handler holds its own reference to the semaphore,
        // which may outlive this object when it is destroyed on its queue.
        dispatch_semaphore_t cancelled = cancelled_;
        dispatch_retain(cancelled);
        nw_path_monitor_set_cancel_handler(monitor_, ^{
          dispatch_semaphore_signal(cancelled);
          dispatch_release(cancelled);
        });
        nw_path_monitor_set_queue(monitor_, queue_);
        nw_path_monitor_start(monitor_);
    }

    ~DarwinNetworkMonitor() override {
        state_->sensor.store(nullptr);
        nw_path_monitor_cancel(monitor_);
        // The cancel handler runs after any update handler in flight, so
        // once it has run no handler is inside the sensor. On the queue
        // itself (a callback that destroys its sensor) it cannot run before
        // we return, and the cleared pointer already keeps later handlers out.
        if (dispatch_get_specific(&kQueueKey) != &kQueueKey) {
            dispatch_semaphore_wait(cancelled_, DISPATCH_TIME_FOREVER);
        }
        nw_release(monitor_);
        dispatch_release(cancelled_);
        dispatch_release(queue_);
    }

    DarwinNetworkMonitor(const DarwinNetworkMonitor&) = delete;
    DarwinNetworkMonitor& operator=(const DarwinNetworkMonitor&) = delete;

private:
    std::shared_ptr<WatchState> state_;
    dispatch_queue_t queue_;
    dispatch_semaphore_t cancelled_;
    nw_path_monitor_t monitor_;
};

}  // namespace

namespace NetworkMonitorBackend {

std::unique_ptr<NetworkSensor::Monitor> start(NetworkSensor& sensor) noexcept {
    try {
        return std::make_unique<DarwinNetworkMonitor>(sensor);
    } catch (...) {
        return nullptr;
    }
}

}  // namespace NetworkMonitorBackend
}  // namespace tavra
