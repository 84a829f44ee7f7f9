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
class DateFormat;
U_NAMESPACE_END

namespace tavra {

class TimeFormatter {
public:
    // The locale's own time styles: short ("09:30", "9:30 AM") and medium,
    // which shows seconds.
    enum class Style { shortTime, mediumTime };

    // A fixed ICU pattern such as "HH:mm" or "EEE HH:mm", read with the
    // default locale's symbols. An invalid pattern formats every date as "".
    explicit TimeFormatter(std::string_view pattern);
    explicit TimeFormatter(Style style);
    ~TimeFormatter();
    TimeFormatter(const TimeFormatter&) = delete;
    TimeFormatter& operator=(const TimeFormatter&) = delete;

    // Never throws for any date.
    std::string format(Date date) const;

    // One time of day in the locale's short or medium style, for texts that
    // show a few at a time. Never throw.
    static std::string shortTime(Date date);
    static std::string mediumTime(Date date);

private:
    // Picks up the default locale and time zone when it is made; a formatter
    // lives no longer than one text, so a change of either is seen by the
    // next one.
    std::unique_ptr<icu::DateFormat> format_;
};

}  // namespace tavra
