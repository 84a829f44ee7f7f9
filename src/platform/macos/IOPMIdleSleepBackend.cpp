// The idle-sleep hold of macOS: an IOKit power assertion. Only calls the OS.
#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/pwr_mgt/IOPMLib.h>

#include <memory>
#include <type_traits>

#include "platform/PowerController.h"
#include "platform/Shell.h"

namespace tavra {

namespace {

struct CFRelease_ {
    void operator()(CFTypeRef ref) const noexcept {
        if (ref != nullptr) CFRelease(ref);
    }
};
using CFString = std::unique_ptr<std::remove_pointer_t<CFStringRef>, CFRelease_>;

class IOPMIdleSleepBackend final : public IdleSleepBackend {
public:
    std::optional<std::uint32_t> take(const std::string& name) override {
        CFString cfName(CFStringCreateWithCString(kCFAllocatorDefault, name.c_str(), kCFStringEncodingUTF8));
        if (!cfName) return std::nullopt;
        IOPMAssertionID id = 0;
        IOReturn result = IOPMAssertionCreateWithName(CFSTR("PreventUserIdleSystemSleep"),
                                                      kIOPMAssertionLevelOn, cfName.get(), &id);
        if (result != kIOReturnSuccess) return std::nullopt;
        return static_cast<std::uint32_t>(id);
    }

    void drop(std::uint32_t assertionID) override {
        IOPMAssertionRelease(static_cast<IOPMAssertionID>(assertionID));
    }
};

}  // namespace

std::unique_ptr<IdleSleepBackend> makeIdleSleepBackend() {
    return std::make_unique<IOPMIdleSleepBackend>();
}

void systemSleepNow() noexcept {
    try {
        Shell::run("/usr/bin/pmset", {"sleepnow"}, std::nullopt, std::nullopt, 30.0);
    } catch (...) {
        // The machine simply stays awake; nobody is waiting for an answer.
    }
}

}  // namespace tavra
