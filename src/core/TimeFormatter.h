#pragma once

// Times of day for people, in the time zone and locale that ICU holds as its
// defaults (which the process takes from the machine: TZ, LANG/LC_*). Tests
// pin both through icu::TimeZone::adoptDefault and icu::Locale::setDefault.

#include <memory>
#include <string>
#include <string_view>

#include "core/Date.h"

#include <unicode/uversion.h>

U_NAMESPACE_BEGIN
class SimpleDateFormat;
U_NAMESPACE_END

namespace tavra {

class TimeFormatter {
public:
    // A fixed ICU pattern such as "HH:mm" or "EEE HH:mm", read with the
    // default locale's symbols. An invalid pattern formats every date as "".
    explicit TimeFormatter(std::string_view pattern);
    ~TimeFormatter();
    TimeFormatter(const TimeFormatter&) = delete;
    TimeFormatter& operator=(const TimeFormatter&) = delete;

    std::string format(Date date) const;

private:
    std::unique_ptr<icu::SimpleDateFormat> format_;
};

}  // namespace tavra
