#include "helper/Machine.h"
#include "platform/Sensors.h"

namespace tavra {

namespace {
// The platform's sensors as the hard limits ask for them. Each sensor falls
// back to a harmless value by itself (nominal, unknown source, lid open).
class PlatformSensors : public HelperSensors {
public:
    bool thermalCritical() override { return ThermalSensor::level() == ThermalLevel::critical; }
    PowerReading power() override {
        auto reading = PowerSourceSensor::read();
        return PowerReading{reading.source == PowerSource::battery, reading.percent};
    }
    bool lidClosed() override { return LidSensor::isClosed(); }
};
}  // namespace

std::unique_ptr<HelperSensors> makeSystemSensors() {
    return std::make_unique<PlatformSensors>();
}

}  // namespace tavra
