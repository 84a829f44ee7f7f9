#pragma once

#include <memory>
#include <string>

#include <unicode/uversion.h>

U_NAMESPACE_BEGIN
class Locale;
class TimeZone;
U_NAMESPACE_END

namespace tavra::testing {

// Pins ICU's default locale and time zone (what the machine's formatters
// use) for the lifetime of the object, and restores the previous ones.
class ScopedIcuDefaults {
public:
    ScopedIcuDefaults(const std::string& locale = "en_US", const std::string& zone = "UTC");
    ~ScopedIcuDefaults();
    ScopedIcuDefaults(const ScopedIcuDefaults&) = delete;
    ScopedIcuDefaults& operator=(const ScopedIcuDefaults&) = delete;

private:
    std::unique_ptr<icu::Locale> previousLocale_;
    std::unique_ptr<icu::TimeZone> previousZone_;
};

}  // namespace tavra::testing
