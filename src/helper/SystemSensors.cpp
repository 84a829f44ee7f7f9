#include "helper/Machine.h"

namespace tavra {

namespace {
// Harmless answers (not critical, on mains, lid open) for as long as the
// platform sensors are not wired in: the hard limits then never trip, and
// the watchdog still guards every held plan.
class FallbackSensors : public HelperSensors {
public:
    bool thermalCritical() override { return false; }
    PowerReading power() override { return {}; }
    bool lidClosed() override { return false; }
};
}  // namespace

std::unique_ptr<HelperSensors> makeSystemSensors() {
    return std::make_unique<FallbackSensors>();
}

}  // namespace tavra
