#include "support/ScopedIcuDefaults.h"

#include <unicode/locid.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <stdexcept>

namespace tavra::testing {

ScopedIcuDefaults::ScopedIcuDefaults(const std::string& locale, const std::string& zone)
    : previousLocale_(std::make_unique<icu::Locale>(icu::Locale::getDefault())),
      previousZone_(icu::TimeZone::createDefault()) {
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(icu::Locale(locale.c_str()), status);
    if (U_FAILURE(status)) throw std::runtime_error("cannot set the ICU locale " + locale);
    icu::TimeZone* tz = icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(zone));
    if (*tz == icu::TimeZone::getUnknown()) {
        delete tz;
        throw std::runtime_error("unknown time zone " + zone);
    }
    icu::TimeZone::adoptDefault(tz);
}

ScopedIcuDefaults::~ScopedIcuDefaults() {
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(*previousLocale_, status);
    icu::TimeZone::adoptDefault(previousZone_.release());
}

}  // namespace tavra::testing
