// The stateless sensors on macOS. Each only fetches raw values from IOKit,
// CoreGraphics or Foundation; every decision is SensorDecisions'.

#include <CoreFoundation/CoreFoundation.h>
#include <CoreGraphics/CoreGraphics.h>
#include <IOKit/IOKitLib.h>
#include <IOKit/ps/IOPowerSources.h>
#include <objc/message.h>
#include <objc/runtime.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "platform/SensorDecisions.h"
#include "platform/Sensors.h"

namespace tavra {

namespace {

struct CFReleaser {
    void operator()(const void* ref) const noexcept {
        if (ref != nullptr) CFRelease(ref);
    }
};
// Owns a reference obtained under the Create/Copy rule.
template <class Ref>
using CFOwned = std::unique_ptr<std::remove_pointer_t<Ref>, CFReleaser>;

bool hasType(CFTypeRef value, CFTypeID type) {
    return value != nullptr && CFGetTypeID(value) == type;
}

std::optional<std::string> stringValue(CFTypeRef value) {
    if (!hasType(value, CFStringGetTypeID())) return std::nullopt;
    const auto string = static_cast<CFStringRef>(value);
    if (const char* fast = CFStringGetCStringPtr(string, kCFStringEncodingUTF8)) return std::string(fast);
    const CFIndex size =
        CFStringGetMaximumSizeForEncoding(CFStringGetLength(string), kCFStringEncodingUTF8) + 1;
    std::string buffer(static_cast<std::size_t>(size), '\0');
    if (!CFStringGetCString(string, buffer.data(), size, kCFStringEncodingUTF8)) return std::nullopt;
    buffer.resize(std::char_traits<char>::length(buffer.c_str()));
    return buffer;
}

// A number that is a whole value, as an integer; anything else is absent.
std::optional<long long> integerValue(CFTypeRef value) {
    if (!hasType(value, CFNumberGetTypeID())) return std::nullopt;
    long long result = 0;
    if (!CFNumberGetValue(static_cast<CFNumberRef>(value), kCFNumberLongLongType, &result)) {
        return std::nullopt;
    }
    return result;
}

CFTypeRef dictionaryValue(CFDictionaryRef dictionary, const char* key) {
    CFOwned<CFStringRef> name(CFStringCreateWithCString(kCFAllocatorDefault, key, kCFStringEncodingUTF8));
    return name ? CFDictionaryGetValue(dictionary, name.get()) : nullptr;
}

// One property of the first registry service of a class, or null.
CFOwned<CFTypeRef> registryProperty(const char* serviceClass, const char* property) {
    const io_service_t service =
        IOServiceGetMatchingService(kIOMainPortDefault, IOServiceMatching(serviceClass));
    if (service == 0) return nullptr;  // IO_OBJECT_NULL
    CFOwned<CFStringRef> key(CFStringCreateWithCString(kCFAllocatorDefault, property, kCFStringEncodingUTF8));
    CFOwned<CFTypeRef> value(key ? IORegistryEntryCreateCFProperty(service, key.get(), kCFAllocatorDefault, 0)
                                 : nullptr);
    IOObjectRelease(service);
    return value;
}

}  // namespace

PowerSourceSensor::Reading PowerSourceSensor::read() noexcept {
    try {
        CFOwned<CFTypeRef> info(IOPSCopyPowerSourcesInfo());
        if (!info) return SensorDecisions::fromPowerSources(std::nullopt, std::nullopt);
        CFOwned<CFArrayRef> list(IOPSCopyPowerSourcesList(info.get()));
        if (!list || !hasType(list.get(), CFArrayGetTypeID())) {
            return SensorDecisions::fromPowerSources(std::nullopt, std::nullopt);
        }
        // Get rule: not ours to release.
        const auto providing = stringValue(IOPSGetProvidingPowerSourceType(info.get()));

        std::vector<std::optional<SensorDecisions::PowerSourceDescription>> sources;
        const CFIndex count = CFArrayGetCount(list.get());
        for (CFIndex i = 0; i < count; ++i) {
            const CFDictionaryRef description =
                IOPSGetPowerSourceDescription(info.get(), CFArrayGetValueAtIndex(list.get(), i));
            if (!hasType(description, CFDictionaryGetTypeID())) {
                sources.emplace_back(std::nullopt);
                continue;
            }
            sources.emplace_back(SensorDecisions::PowerSourceDescription{
                .type = stringValue(dictionaryValue(description, "Type")),
                .currentCapacity = integerValue(dictionaryValue(description, "Current Capacity")),
                .maxCapacity = integerValue(dictionaryValue(description, "Max Capacity")),
                .powerSourceState = stringValue(dictionaryValue(description, "Power Source State")),
            });
        }
        return SensorDecisions::fromPowerSources(sources, providing);
    } catch (...) {
        return {PowerSource::unknown, std::nullopt};
    }
}

bool LidSensor::isClosed() noexcept {
    try {
        const auto value = registryProperty("IOPMrootDomain", "AppleClamshellState");
        if (!hasType(value.get(), CFBooleanGetTypeID())) return false;
        return CFBooleanGetValue(static_cast<CFBooleanRef>(value.get()));
    } catch (...) {
        return false;
    }
}

double IdleSensor::seconds() noexcept {
    try {
        const auto value = registryProperty("IOHIDSystem", "HIDIdleTime");
        if (!hasType(value.get(), CFNumberGetTypeID())) return 0.0;
        double nanoseconds = 0;
        CFNumberGetValue(static_cast<CFNumberRef>(value.get()), kCFNumberDoubleType, &nanoseconds);
        return nanoseconds / 1e9;
    } catch (...) {
        return 0.0;
    }
}

bool LockSensor::isLocked() noexcept {
    try {
        CFOwned<CFDictionaryRef> session(CGSessionCopyCurrentDictionary());
        if (!session) return false;
        const CFTypeRef value = dictionaryValue(session.get(), "CGSSessionScreenIsLocked");
        if (!hasType(value, CFBooleanGetTypeID())) return false;
        return CFBooleanGetValue(static_cast<CFBooleanRef>(value));
    } catch (...) {
        return false;
    }
}

ThermalLevel ThermalSensor::level() noexcept {
    // [[NSProcessInfo processInfo] thermalState] through the runtime, so that
    // this file stays C++. The class is always there: Foundation is linked.
    // Some SDKs declare objc_getClass as returning id, others Class.
    const auto processInfoClass = reinterpret_cast<Class>(objc_getClass("NSProcessInfo"));
    if (processInfoClass == nullptr) return ThermalLevel::nominal;
    using GetObject = id (*)(Class, SEL);
    using GetInteger = long (*)(id, SEL);
    const id processInfo =
        reinterpret_cast<GetObject>(objc_msgSend)(processInfoClass, sel_registerName("processInfo"));
    if (processInfo == nullptr) return ThermalLevel::nominal;
    const long state =
        reinterpret_cast<GetInteger>(objc_msgSend)(processInfo, sel_registerName("thermalState"));
    return SensorDecisions::fromThermalState(state);
}

bool OSUpdateSensor::pending() noexcept {
    try {
        std::ifstream in("/Library/Preferences/com.apple.SoftwareUpdate.plist", std::ios::binary);
        if (!in) return false;
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        CFOwned<CFDataRef> data(CFDataCreate(kCFAllocatorDefault,
                                             reinterpret_cast<const UInt8*>(bytes.data()),
                                             static_cast<CFIndex>(bytes.size())));
        if (!data) return false;
        CFOwned<CFPropertyListRef> plist(CFPropertyListCreateWithData(
            kCFAllocatorDefault, data.get(), kCFPropertyListImmutable, nullptr, nullptr));
        if (!hasType(plist.get(), CFDictionaryGetTypeID())) return false;
        const CFTypeRef updates =
            dictionaryValue(static_cast<CFDictionaryRef>(plist.get()), "RecommendedUpdates");
        return hasType(updates, CFArrayGetTypeID()) && CFArrayGetCount(static_cast<CFArrayRef>(updates)) > 0;
    } catch (...) {
        return false;
    }
}

}  // namespace tavra
