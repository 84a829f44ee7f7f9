#include "support/FakeSensors.h"

namespace tavra::testing {

void FakeSensors::set(const std::function<void(Values&)>& change) {
    std::lock_guard guard(mutex_);
    change(values_);
}

FakeSensors::Values FakeSensors::values() const {
    std::lock_guard guard(mutex_);
    return values_;
}

int FakeSensors::updateChecks() const {
    std::lock_guard guard(mutex_);
    return updateChecks_;
}

SensorSet FakeSensors::sensors() {
    return SensorSet{
        .powerSource = [this] { return values().power; },
        .lidClosed = [this] { return values().lidClosed; },
        .idleSeconds = [this] { return values().idleSeconds; },
        .screenLocked = [this] { return values().screenLocked; },
        .thermal = [this] { return values().thermal; },
        .osUpdatePending =
            [this] {
                std::lock_guard guard(mutex_);
                ++updateChecks_;
                return values_.osUpdatePending;
            },
    };
}

}  // namespace tavra::testing
